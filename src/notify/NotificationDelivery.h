#pragma once
// The ways a message reaches the user, and the interface that a front end
// implements to show messages its own way. See QVNotificationCenter.h for how
// deliveries are installed and chosen.
#include <memory>

#include "notify/QVNotification.h"

namespace qv {

// Values of the QVNotificationType preference.
enum QVNotificationWay : int {
    QVNotificationWayDesktop = 0,  // the desktop's notification daemon over D-Bus
    QVNotificationWayBuiltIn = 1,  // the application's own floating panels
    QVNotificationWayTray = 2,     // the tray icon's message balloon
};
inline constexpr int QVNotificationWayCount = 3;

class NotificationDelivery {
public:
    virtual ~NotificationDelivery() = default;

    // Shows a message. Called on the main thread (the thread of the
    // QCoreApplication); in a process without one, on the posting thread, so a
    // delivery meant for such a process must be thread-safe. Must not block.
    virtual void deliver(const QVNotificationRef& notification) = 0;

    // A progress message that this delivery showed has a new amount (or turned
    // determinate on finishing). Same thread rules as deliver().
    virtual void progressChanged(const QVNotificationRef& notification) { (void)notification; }

    // Waits up to `seconds` until every message handed out has been taken by the
    // service behind this delivery; true when none is outstanding. For a process
    // about to exit. A delivery that shows messages at once has nothing to wait for.
    virtual bool flush(double seconds) {
        (void)seconds;
        return true;
    }
};

} // namespace qv
