#include "notify/AlertPanel.h"

#include <mutex>

#include "notify/QVNotificationCenter.h"
#include "toolkit/MainThread.h"

namespace qv {

namespace {

constexpr double kAlertPanelDelay = 0.2;

std::mutex& handlerMutex() {
    static std::mutex mutex;
    return mutex;
}

QVAlertPanelHandler& installedHandler() {
    static QVAlertPanelHandler handler;
    return handler;
}

} // namespace

void QVSetAlertPanelHandler(QVAlertPanelHandler handler) {
    std::lock_guard<std::mutex> lock(handlerMutex());
    installedHandler() = std::move(handler);
}

void QVShowAlertPanelLater(const std::string& title, const std::string& text) {
    afterDelay(kAlertPanelDelay, [title, text] {
        QVAlertPanelHandler handler;
        {
            std::lock_guard<std::mutex> lock(handlerMutex());
            handler = installedHandler();
        }
        if (handler)
            handler(title, text);
        else
            QVNotificationCenter::defaultCenter().postCritical(title + "\n\n" + text, true);
    });
}

} // namespace qv
