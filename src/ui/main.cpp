// quillvane: the desktop application. Everything it shows lives in the qv_ui
// library; this is only the entry point.
#include <QApplication>

#include "app/LayerWiring.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("quillvane"));
    QApplication::setApplicationDisplayName(QStringLiteral("Quillvane"));
    qv::QVConnectLayers();
    return 0;
}
