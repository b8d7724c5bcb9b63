#include "ui/folders/FolderIcons.h"

#include <QFile>
#include <QHash>
#include <QPainter>
#include <QSvgRenderer>

// Resources compiled into a static library must be registered by hand.
static void initFolderPictures() {
    static const bool done = [] {
        Q_INIT_RESOURCE(folders);
        return true;
    }();
    (void)done;
}

namespace qv::ui {

namespace {

// The cut-out colour in the SVGs, replaced by the background.
constexpr const char* kPaperMark = "#fffffe";

} // namespace

QPixmap folderPicture(const QString& name, QSize size, qreal dpr, const QColor& ink, const QColor& paper) {
    initFolderPictures();
    static QHash<QString, QPixmap> cache; // main thread only, like every widget
    const QString key = QStringLiteral("%1|%2x%3|%4|%5|%6")
                            .arg(name)
                            .arg(size.width())
                            .arg(size.height())
                            .arg(dpr)
                            .arg(ink.name(QColor::HexArgb), paper.name(QColor::HexArgb));
    if (auto it = cache.constFind(key); it != cache.constEnd()) return *it;

    QFile file(QStringLiteral(":/folders/icons/%1.svg").arg(name));
    if (!file.open(QIODevice::ReadOnly)) return {};
    QByteArray svg = file.readAll();
    svg.replace("currentColor", ink.name(QColor::HexRgb).toLatin1());
    svg.replace(kPaperMark, paper.name(QColor::HexRgb).toLatin1());
    QSvgRenderer renderer(svg);
    QPixmap picture(size * dpr);
    picture.setDevicePixelRatio(dpr);
    picture.fill(Qt::transparent);
    QPainter painter(&picture);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter, QRectF(QPointF(0, 0), QSizeF(size)));
    painter.end();
    cache.insert(key, picture);
    return picture;
}

} // namespace qv::ui
