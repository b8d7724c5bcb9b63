// Build tool: renders an SVG icon as a square PNG of the given size, for the
// icon theme's fixed-size folders.
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>
#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: qv-render-icon <in.svg> <size> <out.png>\n");
        return 2;
    }
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    QSvgRenderer renderer(QString::fromLocal8Bit(argv[1]));
    const int size = QByteArray(argv[2]).toInt();
    if (!renderer.isValid() || size <= 0) {
        std::fprintf(stderr, "qv-render-icon: can't render %s at %s\n", argv[1], argv[2]);
        return 1;
    }
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter);
    painter.end();
    return image.save(QString::fromLocal8Bit(argv[3])) ? 0 : 1;
}
