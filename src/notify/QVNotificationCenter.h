#pragma once
// How every part of the system tells the user something without blocking:
// information, alerts, critical alerts and progress, from any thread. Each
// message is delivered by the way the QVNotificationType preference chooses:
// 0 the desktop's notification daemon (org.freedesktop.Notifications over
// D-Bus), 1 the application's own floating panels, 2 the tray icon's balloon.
// The front end in use installs the deliveries it has (qv installs a console
// delivery that prints each message on standard error).
//
// Installing deliveries (once, on the main thread, before posting starts):
//
//   auto& centre = QVNotificationCenter::defaultCenter();
//   centre.setDelivery(QVNotificationWayBuiltIn, panels);   // the desktop application
//   centre.setDelivery(QVNotificationWayTray, balloons);    // the desktop application
//   centre.setFallbackDelivery(std::make_shared<ConsoleNotificationDelivery>());  // qv
//   (ConsoleNotificationDelivery and QVAskYesNoOnTerminal: ui/logic/NotificationConsole.h)
//   centre.setYesNoHandler(QVAskYesNoOnTerminal);           // qv; the application: a message box
//   centre.setUserDefaultsPreferencesProvider();            // both, after the defaults are registered
//   ...
//   centre.flush(2.0);                                      // qv, before exiting
//
// Way 0 is built in: the centre installs a DesktopNotificationDelivery on the
// session bus at creation. Ways 1 and 2 exist only where a front end installs
// them. When the chosen way has no delivery, the fallback delivery shows the
// message (qv: the console); with no fallback either, the message is dropped.
// A QVNotificationType outside 0..2 shows nothing.
//
// Threads: posting only builds the message on the caller's thread; delivery runs
// on the main thread (the QCoreApplication's) and never waits for it. A process
// without a QCoreApplication (a plain command-line run) delivers in place, on
// the posting thread. postYesNo asks on the main thread and makes its caller
// wait, so the main thread must be running its event loop when another thread
// asks; without a QCoreApplication the question is asked in place.
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "notify/NotificationDelivery.h"
#include "notify/QVNotification.h"
#include "vault/Value.h"

namespace qv {

enum QVNotificationType : int {
    QVNotificationInfo = 0,
    QVNotificationAlert = 1,
    QVNotificationCritical = 2,
    QVNotificationProgress = 3,
};

// Answers preference keys (QVNotificationType, QVShowInfoNotifications, the colours).
class PreferencesProvider {
public:
    virtual ~PreferencesProvider() = default;
    virtual Value fetchValueForPreference(const std::string& key) = 0;
};

class QVNotificationCenter {
public:
    static QVNotificationCenter& defaultCenter();

    // A centre of its own (tests); the process's one is defaultCenter().
    QVNotificationCenter();
    ~QVNotificationCenter();
    QVNotificationCenter(const QVNotificationCenter&) = delete;
    QVNotificationCenter& operator=(const QVNotificationCenter&) = delete;

    void postInfo(const std::string& message, bool sticky);
    void postAlert(const std::string& message, bool sticky);
    void postCritical(const std::string& message, bool sticky);
    // Returns a handle for updateProgress.
    QVNotificationRef postProgress(const std::string& message, bool determinate, bool sticky);
    // Amounts outside 0..1 are refused with a log line.
    static void updateProgress(const QVNotificationRef& notification, double amount);
    // Blocks the caller until the user answers; ignores muting and the delivery way.
    // With no yes/no handler installed, the default answer is taken.
    bool postYesNo(const std::string& message, bool defaultButton);

    // The lifespan given to each new message (5 seconds at creation).
    void setDelay(double seconds);
    double delay() const;
    // While muting, messages of all four types are dropped at delivery.
    void setMuting(bool muting);
    bool isMuting() const;
    void setPreferencesProvider(std::shared_ptr<PreferencesProvider> provider);
    void setUserDefaultsPreferencesProvider();
    // The provider's answer when it has one, else the built-in default; unknown keys log.
    Value fetchValueForPreference(const std::string& key);

    // Installs the delivery of one way (0..2); null removes it.
    void setDelivery(int way, std::shared_ptr<NotificationDelivery> delivery);
    std::shared_ptr<NotificationDelivery> delivery(int way) const;
    // Shows messages whose way has no delivery installed.
    void setFallbackDelivery(std::shared_ptr<NotificationDelivery> delivery);
    // Asks a yes/no question; runs on the main thread. A plain password must never
    // be the message.
    using YesNoHandler = std::function<bool(const std::string& message, bool defaultButton)>;
    void setYesNoHandler(YesNoHandler handler);
    // The handler installed, or empty (postYesNo then takes the default answer).
    YesNoHandler yesNoHandler() const;

    // For a process about to exit: delivers what was posted from this thread, then
    // waits up to `seconds` until the deliveries have handed every message on (the
    // notification daemon's answers). True when nothing is outstanding.
    bool flush(double seconds);

    // The messages on show in built-in panels (main thread only). A message joins
    // when the built-in delivery shows it and leaves when its panel dies.
    std::vector<QVNotificationRef> notifications() const;
    // Called by a dying panel.
    void destroyNotification(const QVNotificationRef& notification);
    // Where the next built-in panel of this size goes on a screen: the live
    // panels stack downwards from the top right corner 15 points apart, and a
    // stack that would pass the bottom of the screen starts a new column to the left.
    QVRect availableRectGivenSize(double width, double height, const QVRect& screen) const;
    static QVRect availableRect(double width, double height, const QVRect& screen,
                                const std::vector<QVRect>& occupied);

    // The titles of the types: "Info", "Alert!", "Critical Alert!", "Operation In Progress".
    static std::string typeToName(int type);

    struct Impl;

private:
    void post(int type, const std::string& message, bool sticky, bool determinate, QVNotificationRef* handle);
    std::shared_ptr<Impl> d_;
};

} // namespace qv
