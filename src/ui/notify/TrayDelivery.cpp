#include "ui/notify/TrayDelivery.h"

#include <cmath>

#include "notify/QVNotificationCenter.h"
#include "ui/notify/NotificationPanel.h"

namespace qv::ui {

namespace {

QSystemTrayIcon::MessageIcon iconFor(int type) {
    if (type == QVNotificationAlert) return QSystemTrayIcon::Warning;
    if (type == QVNotificationCritical) return QSystemTrayIcon::Critical;
    return QSystemTrayIcon::Information;
}

// A sticky message stays as long as the tray host lets a balloon stay.
constexpr int kStickyMilliseconds = 24 * 60 * 60 * 1000;

} // namespace

TrayDelivery::TrayDelivery(QSystemTrayIcon* tray, std::shared_ptr<NotificationDelivery> panels)
    : tray_(tray), panels_(std::move(panels)) {}

bool TrayDelivery::trayOnShow() const {
    return tray_ && tray_->isVisible() && QSystemTrayIcon::isSystemTrayAvailable() &&
           QSystemTrayIcon::supportsMessages();
}

void TrayDelivery::deliver(const QVNotificationRef& notification) {
    if (!notification) return;
    if (!trayOnShow()) {
        if (panels_) panels_->deliver(notification);
        return;
    }
    const int msecs = notification->isSticky() ? kStickyMilliseconds
                                               : static_cast<int>(std::lround(notification->timeRemaining() * 1000.0));
    tray_->showMessage(QVNotificationPanel::typeTitle(notification->type()),
                       QString::fromStdString(notification->msg()), iconFor(notification->type()), msecs);
}

void TrayDelivery::progressChanged(const QVNotificationRef& notification) {
    // A balloon has no bar; a message that went to a panel has.
    if (panels_ && notification && notification->panelFrame()) panels_->progressChanged(notification);
}

} // namespace qv::ui
