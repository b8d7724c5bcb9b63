#pragma once
// How every part of the system tells the user something without blocking:
// information, alerts, critical alerts and progress, from any thread. Each
// message is delivered by the way the QVNotificationType preference chooses:
// 0 the desktop's notification daemon (org.freedesktop.Notifications over
// D-Bus), 1 the application's own floating panels, 2 the tray icon's balloon.
// The front end in use installs the deliveries it has (qv installs a console
// delivery that prints each message on standard error).
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vault/Value.h"

namespace qv {

enum QVNotificationType : int {
    QVNotificationInfo = 0,
    QVNotificationAlert = 1,
    QVNotificationCritical = 2,
    QVNotificationProgress = 3,
};

class QVNotification;
using QVNotificationRef = std::shared_ptr<QVNotification>;

// Answers preference keys (QVNotificationType, QVShowInfoNotifications, the colours).
class PreferencesProvider {
public:
    virtual ~PreferencesProvider() = default;
    virtual Value fetchValueForPreference(const std::string& key) = 0;
};

class QVNotificationCenter {
public:
    static QVNotificationCenter& defaultCenter();

    void postInfo(const std::string& message, bool sticky);
    void postAlert(const std::string& message, bool sticky);
    void postCritical(const std::string& message, bool sticky);
    // Returns a handle for updateProgress.
    QVNotificationRef postProgress(const std::string& message, bool determinate, bool sticky);
    static void updateProgress(const QVNotificationRef& notification, double amount);
    // Blocks the caller until the user answers; ignores muting and the delivery way.
    bool postYesNo(const std::string& message, bool defaultButton);

    void setDelay(double seconds);
    void setMuting(bool muting);
    void setPreferencesProvider(std::shared_ptr<PreferencesProvider> provider);
    void setUserDefaultsPreferencesProvider();
    Value fetchValueForPreference(const std::string& key);

    // The titles of the types: "Info", "Alert!", "Critical Alert!", "Operation In Progress".
    static std::string typeToName(int type);
};

} // namespace qv
