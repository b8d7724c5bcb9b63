#pragma once
// Delivery through the desktop's notification daemon: the method Notify of
// org.freedesktop.Notifications on the session bus. It never waits for the
// daemon: calls go out asynchronously, and their answers are looked at when they
// have come (at once on the main thread's event loop, otherwise at the next
// message). With no bus, or no daemon answering, it logs one warning and drops
// messages until the daemon answers again.
#include <memory>
#include <string>

#include "notify/NotificationDelivery.h"

namespace qv {

class DesktopNotificationDelivery : public NotificationDelivery {
public:
    // The bus at `busAddress` (a D-Bus address such as "unix:path=..."); empty
    // for the user's session bus. Nothing connects before the first message.
    explicit DesktopNotificationDelivery(std::string busAddress = {});
    ~DesktopNotificationDelivery() override;
    DesktopNotificationDelivery(const DesktopNotificationDelivery&) = delete;
    DesktopNotificationDelivery& operator=(const DesktopNotificationDelivery&) = delete;

    // Summary: the type's title; body: the message (escaped when the daemon reads
    // markup); urgency 2 for critical messages, 1 for the others; a sticky message
    // never expires, the others after their lifespan.
    void deliver(const QVNotificationRef& notification) override;
    // Waits for the daemon's answers (or its absence) to the messages sent so far.
    bool flush(double seconds) override;

    struct State;

private:
    std::shared_ptr<State> s_;
};

} // namespace qv
