#include "notify/QVNotificationCenter.h"

#include <QCoreApplication>
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <exception>

#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "notify/DesktopNotifications.h"
#include "notify/QVNotificationColor.h"
#include "notify/QVUserDefaultsPreferencesProvider.h"

namespace qv {

namespace {

constexpr double kPanelMargin = 15.0;
constexpr double kMenuBarHeight = 25.0;

std::string exceptionText(std::exception_ptr e) {
    try {
        std::rethrow_exception(e);
    } catch (const std::exception& ex) {
        return ex.what();
    } catch (...) {
        return "unknown exception";
    }
}

// The values that apply when the provider has no answer (or there is no provider).
Value builtInDefault(const std::string& key) {
    if (key == "QVNotificationType") return Value(int(QVNotificationWayBuiltIn));
    if (key == "QVShowInfoNotifications") return Value(true);
    if (key == "QVInfoBGColor") return QVColorToValue({0.0, 0.213, 0.069, 1.0});
    if (key == "QVAlertBGColor") return QVColorToValue({0.318, 0.321, 0.0, 1.0});
    if (key == "QVCriticalBGColor") return QVColorToValue({0.538, 0.063, 0.12, 1.0});
    if (key.find("FGColor") != std::string::npos) return QVColorToValue(QVColorWhite);
    QV_LOG_ERROR("No such preference: " + key);
    return Value();
}

} // namespace

struct QVNotificationCenter::Impl {
    mutable std::mutex mutex;
    double delayTime = 5.0;
    bool muting = false;
    std::shared_ptr<PreferencesProvider> prefs;
    std::array<std::shared_ptr<NotificationDelivery>, QVNotificationWayCount> deliveries;
    std::shared_ptr<NotificationDelivery> fallback;
    YesNoHandler yesNo;
    std::vector<QVNotificationRef> notifications;
    // Questions asked in place, by a process without a main loop, come one at a time.
    std::recursive_mutex askMutex;

    Value fetch(const std::string& key) {
        std::shared_ptr<PreferencesProvider> provider;
        {
            std::lock_guard<std::mutex> lock(mutex);
            provider = prefs;
        }
        if (provider) {
            try {
                Value answer = provider->fetchValueForPreference(key);
                if (!answer.isNull()) return answer;
            } catch (...) {
                QV_LOG_ERROR("the preferences failed to answer " + key + ": " +
                             exceptionText(std::current_exception()));
            }
        }
        return builtInDefault(key);
    }

    // Shows one message the chosen way; runs on the main thread.
    void postNotification(const QVNotificationRef& n) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            if (muting) return;
        }
        Value wayValue = fetch("QVNotificationType");
        int64_t way = QVNotificationWayBuiltIn;
        if (wayValue.isNumber())
            way = wayValue.toInt();
        else
            QV_LOG_WARN("QVNotificationType is not a number: " + wayValue.description());
        if (way < 0 || way >= QVNotificationWayCount) return;

        std::shared_ptr<NotificationDelivery> delivery;
        bool builtIn = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            delivery = deliveries[static_cast<size_t>(way)];
            builtIn = delivery && way == QVNotificationWayBuiltIn;
            if (!delivery) delivery = fallback;
        }
        if (!delivery) return;
        n->setDelivery(delivery);
        try {
            delivery->deliver(n);
        } catch (...) {
            QV_LOG_ERROR("couldn't deliver a notification: " + exceptionText(std::current_exception()));
            return;
        }
        // A delivery that falls back on the built-in panels (the tray's, with no
        // tray on show) gives the message a panel frame: it is on show all the same.
        if (builtIn || n->panelFrame()) {
            std::lock_guard<std::mutex> lock(mutex);
            notifications.push_back(n);
        }
    }
};

QVNotificationCenter& QVNotificationCenter::defaultCenter() {
    // Never destroyed: messages may still be on their way to the main thread at exit.
    static auto* centre = new QVNotificationCenter();
    return *centre;
}

QVNotificationCenter::QVNotificationCenter() : d_(std::make_shared<Impl>()) {
    d_->deliveries[QVNotificationWayDesktop] = std::make_shared<DesktopNotificationDelivery>();
}

QVNotificationCenter::~QVNotificationCenter() = default;

std::string QVNotificationCenter::typeToName(int type) {
    switch (type) {
    case QVNotificationInfo: return "Info";
    case QVNotificationAlert: return "Alert!";
    case QVNotificationCritical: return "Critical Alert!";
    case QVNotificationProgress: return "Operation In Progress";
    default: QV_LOG_ERROR(QVFormat("no such type: %d", type)); return {};
    }
}

void QVNotificationCenter::post(int type, const std::string& message, bool sticky, bool determinate,
                                QVNotificationRef* handle) {
    double lifespan;
    {
        std::lock_guard<std::mutex> lock(d_->mutex);
        lifespan = d_->delayTime;
    }
    auto n = std::make_shared<QVNotification>(type, message, lifespan, sticky);
    if (type == QVNotificationProgress) n->setDeterminate(determinate);
    if (type == QVNotificationAlert) QVLogInfo("Posted alert message: " + message);
    if (type == QVNotificationCritical) QVLogInfo("Posted critical message: " + message);
    if (handle) *handle = n;
    performBlockOnMainThread([d = d_, n] { d->postNotification(n); });
}

void QVNotificationCenter::postInfo(const std::string& message, bool sticky) {
    if (!fetchValueForPreference("QVShowInfoNotifications").toBool()) return;
    post(QVNotificationInfo, message, sticky, true, nullptr);
}

void QVNotificationCenter::postAlert(const std::string& message, bool sticky) {
    post(QVNotificationAlert, message, sticky, true, nullptr);
}

void QVNotificationCenter::postCritical(const std::string& message, bool sticky) {
    post(QVNotificationCritical, message, sticky, true, nullptr);
}

QVNotificationRef QVNotificationCenter::postProgress(const std::string& message, bool determinate, bool sticky) {
    QVNotificationRef handle;
    post(QVNotificationProgress, message, sticky, determinate, &handle);
    return handle;
}

void QVNotificationCenter::updateProgress(const QVNotificationRef& notification, double amount) {
    if (!notification) {
        QV_LOG_ERROR("no notification to update");
        return;
    }
    if (!(amount >= 0.0 && amount <= 1.0)) {
        QV_LOG_ERROR(QVFormat("progress amount out of range 0..1: %g", amount));
        return;
    }
    performBlockOnMainThread([notification, amount] {
        notification->updateProgress(amount);
        auto delivery = notification->delivery();
        if (!delivery) return;
        try {
            delivery->progressChanged(notification);
        } catch (...) {
            QV_LOG_ERROR("couldn't show progress: " + exceptionText(std::current_exception()));
        }
    });
}

bool QVNotificationCenter::postYesNo(const std::string& message, bool defaultButton) {
    YesNoHandler handler;
    {
        std::lock_guard<std::mutex> lock(d_->mutex);
        handler = d_->yesNo;
    }
    if (!handler) {
        QV_LOG_WARN(std::string("no way to ask the user here, taking the default answer (") +
                    (defaultButton ? "yes" : "no") + ")");
        return defaultButton;
    }
    auto ask = [&handler, &message, defaultButton]() -> bool {
        try {
            return handler(message, defaultButton);
        } catch (...) {
            QV_LOG_ERROR("couldn't ask the user, taking the default answer: " +
                         exceptionText(std::current_exception()));
            return defaultButton;
        }
    };
    // In place on the main thread (and everywhere in a process without an event
    // loop, one question at a time); from other threads, on the main thread while
    // the caller waits.
    std::unique_lock<std::recursive_mutex> inPlace(d_->askMutex, std::defer_lock);
    if (QVIsMainThread()) inPlace.lock();
    bool answer = defaultButton;
    try {
        performBlockOnMainThread([&] { answer = ask(); }, true);
    } catch (...) {
        QV_LOG_ERROR("couldn't ask the user, taking the default answer: " + exceptionText(std::current_exception()));
    }
    return answer;
}

void QVNotificationCenter::setDelay(double seconds) {
    if (!(seconds >= 0.0) || !std::isfinite(seconds)) {
        QV_LOG_ERROR(QVFormat("refused notification delay: %g", seconds));
        return;
    }
    std::lock_guard<std::mutex> lock(d_->mutex);
    d_->delayTime = seconds;
}

double QVNotificationCenter::delay() const {
    std::lock_guard<std::mutex> lock(d_->mutex);
    return d_->delayTime;
}

void QVNotificationCenter::setMuting(bool muting) {
    std::lock_guard<std::mutex> lock(d_->mutex);
    d_->muting = muting;
}

bool QVNotificationCenter::isMuting() const {
    std::lock_guard<std::mutex> lock(d_->mutex);
    return d_->muting;
}

void QVNotificationCenter::setPreferencesProvider(std::shared_ptr<PreferencesProvider> provider) {
    std::lock_guard<std::mutex> lock(d_->mutex);
    d_->prefs = std::move(provider);
}

void QVNotificationCenter::setUserDefaultsPreferencesProvider() {
    setPreferencesProvider(std::make_shared<QVUserDefaultsPreferencesProvider>());
}

Value QVNotificationCenter::fetchValueForPreference(const std::string& key) { return d_->fetch(key); }

void QVNotificationCenter::setDelivery(int way, std::shared_ptr<NotificationDelivery> delivery) {
    if (way < 0 || way >= QVNotificationWayCount) {
        QV_LOG_ERROR(QVFormat("no such delivery way: %d", way));
        return;
    }
    std::lock_guard<std::mutex> lock(d_->mutex);
    d_->deliveries[static_cast<size_t>(way)] = std::move(delivery);
}

std::shared_ptr<NotificationDelivery> QVNotificationCenter::delivery(int way) const {
    if (way < 0 || way >= QVNotificationWayCount) return nullptr;
    std::lock_guard<std::mutex> lock(d_->mutex);
    return d_->deliveries[static_cast<size_t>(way)];
}

void QVNotificationCenter::setFallbackDelivery(std::shared_ptr<NotificationDelivery> delivery) {
    std::lock_guard<std::mutex> lock(d_->mutex);
    d_->fallback = std::move(delivery);
}

void QVNotificationCenter::setYesNoHandler(YesNoHandler handler) {
    std::lock_guard<std::mutex> lock(d_->mutex);
    d_->yesNo = std::move(handler);
}

QVNotificationCenter::YesNoHandler QVNotificationCenter::yesNoHandler() const {
    std::lock_guard<std::mutex> lock(d_->mutex);
    return d_->yesNo;
}

bool QVNotificationCenter::flush(double seconds) {
    if (QCoreApplication::instance() && QVIsMainThread()) QCoreApplication::processEvents();
    std::vector<std::shared_ptr<NotificationDelivery>> all;
    {
        std::lock_guard<std::mutex> lock(d_->mutex);
        all.assign(d_->deliveries.begin(), d_->deliveries.end());
        all.push_back(d_->fallback);
    }
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::duration<double>(std::isfinite(seconds) ? seconds : 0.0);
    bool done = true;
    for (const auto& delivery : all) {
        if (!delivery) continue;
        double left = std::max(0.0, std::chrono::duration<double>(deadline - Clock::now()).count());
        try {
            done = delivery->flush(left) && done;
        } catch (...) {
            QV_LOG_ERROR("a delivery failed to flush: " + exceptionText(std::current_exception()));
            done = false;
        }
    }
    return done;
}

std::vector<QVNotificationRef> QVNotificationCenter::notifications() const {
    std::lock_guard<std::mutex> lock(d_->mutex);
    return d_->notifications;
}

void QVNotificationCenter::destroyNotification(const QVNotificationRef& notification) {
    std::lock_guard<std::mutex> lock(d_->mutex);
    auto& live = d_->notifications;
    for (auto it = live.begin(); it != live.end(); ++it) {
        if (*it == notification) {
            live.erase(it);
            return;
        }
    }
    QV_LOG_WARN("couldn't find notification, probably auto-destroyed");
}

QVRect QVNotificationCenter::availableRect(double width, double height, const QVRect& screen,
                                           const std::vector<QVRect>& occupied) {
    const double topY = screen.y + kPanelMargin + kMenuBarHeight;
    QVRect candidate{screen.right() - kPanelMargin - width, topY, width, height};
    // Every overlap moves the candidate at least 15 points down, or a column to the
    // left, so the walk ends; the bound only guards against absurd sizes.
    for (size_t step = 0; step < 100000; ++step) {
        const QVRect* hit = nullptr;
        for (const QVRect& panel : occupied) {
            if (candidate.overlapsWith(panel)) {
                hit = &panel;
                break;
            }
        }
        if (!hit) return candidate;
        candidate.y = hit->bottom() + kPanelMargin;
        if (candidate.bottom() > screen.bottom()) {
            candidate.x -= hit->width + kPanelMargin;
            candidate.y = topY;
        }
    }
    return candidate;
}

QVRect QVNotificationCenter::availableRectGivenSize(double width, double height, const QVRect& screen) const {
    std::vector<QVRect> occupied;
    for (const auto& n : notifications())
        if (auto frame = n->panelFrame()) occupied.push_back(*frame);
    return availableRect(width, height, screen, occupied);
}

} // namespace qv
