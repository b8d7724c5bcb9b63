#include "ui/shell/WindowGeometry.h"

#include <QByteArray>
#include <QWidget>

#include "vault/UserDefaults.h"

namespace qv::ui {

constexpr const char* kWindowKey = "QVWindowGeometry";

void saveWindowGeometry(QWidget* window) {
    if (!window) return;
    const QByteArray geometry = window->saveGeometry().toBase64();
    QVUserDefaults::standardUserDefaults().setObject(kWindowKey, Value(geometry.toStdString()));
}

void restoreWindowGeometry(QWidget* window) {
    const std::string saved = QVUserDefaults::standardUserDefaults().stringForKey(kWindowKey);
    if (!saved.empty()) window->restoreGeometry(QByteArray::fromBase64(QByteArray::fromStdString(saved)));
}

} // namespace qv::ui
