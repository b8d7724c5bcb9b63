#pragma once
// The tray way of the notification centre: each message in the tray icon's
// balloon. While there is no tray icon on show (no tray host, or none yet),
// messages go to the built-in panels instead.
#include <QPointer>
#include <QSystemTrayIcon>
#include <memory>

#include "notify/NotificationDelivery.h"

namespace qv::ui {

class TrayDelivery : public NotificationDelivery {
public:
    TrayDelivery(QSystemTrayIcon* tray, std::shared_ptr<NotificationDelivery> panels);

    void deliver(const QVNotificationRef& notification) override;
    void progressChanged(const QVNotificationRef& notification) override;

    // Whether a balloon can be shown now.
    bool trayOnShow() const;

private:
    QPointer<QSystemTrayIcon> tray_;
    std::shared_ptr<NotificationDelivery> panels_;
};

} // namespace qv::ui
