#pragma once
// The built-in way of the notification centre: each message in a floating
// panel of its own (NotificationPanel.h), placed by the centre among the
// panels on show, on the primary screen's available area.
#include <QObject>
#include <QPointer>
#include <map>

#include "notify/NotificationDelivery.h"
#include "ui/notify/NotificationPanel.h"

namespace qv {
class QVNotificationCenter;
} // namespace qv

namespace qv::ui {

class PanelDelivery : public NotificationDelivery {
public:
    // `centre` places the panels and hears of their death; it must outlive them.
    explicit PanelDelivery(QVNotificationCenter& centre);
    ~PanelDelivery() override;

    void deliver(const QVNotificationRef& notification) override;
    void progressChanged(const QVNotificationRef& notification) override;

    // The panel on show for a message, or null.
    QVNotificationPanel* panelFor(const QVNotificationRef& notification) const;

private:
    QVNotificationCenter& centre_;
    std::map<const QVNotification*, QPointer<QVNotificationPanel>> panels_;
};

} // namespace qv::ui
