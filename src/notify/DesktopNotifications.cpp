#include "notify/DesktopNotifications.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QThread>
#include <QVariantMap>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "toolkit/Log.h"
#include "notify/QVNotificationCenter.h"

namespace qv {

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kInterface = QStringLiteral("org.freedesktop.Notifications");
constexpr size_t kMaxPending = 64;

std::atomic<unsigned> gConnectionCounter{0};

QString escapeMarkup(const QString& text) {
    QString out;
    out.reserve(text.size());
    for (QChar c : text) {
        if (c == u'&')
            out += QStringLiteral("&amp;");
        else if (c == u'<')
            out += QStringLiteral("&lt;");
        else if (c == u'>')
            out += QStringLiteral("&gt;");
        else
            out += c;
    }
    return out;
}

int expireTimeoutFor(const QVNotification& n) {
    if (n.isSticky()) return 0;  // 0: until the user dismisses it
    double ms = std::round(n.timeRemaining() * 1000.0);
    if (!(ms >= 1.0)) return 1;
    if (ms > static_cast<double>(INT_MAX)) return INT_MAX;
    return static_cast<int>(ms);
}

} // namespace

struct DesktopNotificationDelivery::State {
    std::mutex mutex;
    QString address;  // empty: the session bus
    QString connectionName;
    bool connected = false;
    bool warnedNoBus = false;
    bool warnedNoDaemon = false;
    std::optional<QDBusPendingCall> capabilities;
    std::optional<bool> bodyMarkup;
    std::vector<QDBusPendingCall> pending;

    bool ensureConnected(QString* why) {
        if (connected && QDBusConnection(connectionName).isConnected()) return true;
        if (connected) QDBusConnection::disconnectFromBus(connectionName);
        connected = false;
        QDBusConnection conn = address.isEmpty() ? QDBusConnection::connectToBus(QDBusConnection::SessionBus,
                                                                                 connectionName)
                                                 : QDBusConnection::connectToBus(address, connectionName);
        if (!conn.isConnected()) {
            *why = conn.lastError().message();
            QDBusConnection::disconnectFromBus(connectionName);
            return false;
        }
        connected = true;
        bodyMarkup.reset();
        capabilities = conn.asyncCall(
            QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("GetCapabilities")));
        return true;
    }

    // Looks at the answers that have come, without waiting for any.
    void checkReplies() {
        if (!bodyMarkup && capabilities && capabilities->isFinished()) {
            QDBusPendingReply<QStringList> caps(*capabilities);
            bodyMarkup = caps.isValid() && caps.value().contains(QStringLiteral("body-markup"));
            capabilities.reset();
        }
        for (auto it = pending.begin(); it != pending.end();) {
            if (!it->isFinished()) {
                ++it;
                continue;
            }
            if (it->isError()) {
                if (!warnedNoDaemon) {
                    QDBusError error = it->error();
                    QV_LOG_WARN("no desktop notification daemon answers (" + error.name().toStdString() + ": " +
                                error.message().toStdString() + "); notifications are dropped");
                    warnedNoDaemon = true;
                }
            } else {
                warnedNoDaemon = false;
            }
            it = pending.erase(it);
        }
    }
};

DesktopNotificationDelivery::DesktopNotificationDelivery(std::string busAddress) : s_(std::make_shared<State>()) {
    s_->address = QString::fromStdString(busAddress);
    s_->connectionName = QStringLiteral("quillvane-notifications-%1").arg(gConnectionCounter.fetch_add(1));
}

DesktopNotificationDelivery::~DesktopNotificationDelivery() {
    std::lock_guard<std::mutex> lock(s_->mutex);
    s_->pending.clear();
    s_->capabilities.reset();
    if (s_->connected) QDBusConnection::disconnectFromBus(s_->connectionName);
}

void DesktopNotificationDelivery::deliver(const QVNotificationRef& notification) {
    if (!notification) return;
    std::lock_guard<std::mutex> lock(s_->mutex);
    s_->checkReplies();
    QString why;
    if (!s_->ensureConnected(&why)) {
        if (!s_->warnedNoBus) {
            QV_LOG_WARN("no D-Bus session bus for desktop notifications (" + why.toStdString() +
                        "); notifications are dropped");
            s_->warnedNoBus = true;
        }
        return;
    }
    s_->warnedNoBus = false;
    if (s_->warnedNoDaemon) {
        // Keep trying, so that a daemon that starts later gets the messages, but
        // don't pile up calls that nobody answers.
        if (s_->pending.size() >= kMaxPending) return;
    }

    const uchar urgency = notification->type() == QVNotificationCritical ? 2 : 1;
    QVariantMap hints;
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue(urgency));
    QString body = QString::fromStdString(notification->msg());
    if (s_->bodyMarkup.value_or(false)) body = escapeMarkup(body);

    QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    call << QStringLiteral("Quillvane") << uint(0) << QString() << QString::fromStdString(notification->title())
         << body << QStringList() << hints << expireTimeoutFor(*notification);
    QDBusPendingCall reply = QDBusConnection(s_->connectionName).asyncCall(call);
    if (s_->pending.size() >= kMaxPending) s_->pending.erase(s_->pending.begin());
    s_->pending.push_back(reply);

    // On the main thread the event loop tells us the answer as soon as it comes.
    QCoreApplication* app = QCoreApplication::instance();
    if (app && QThread::currentThread() == app->thread()) {
        auto* watcher = new QDBusPendingCallWatcher(reply, app);
        std::weak_ptr<State> weak = s_;
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                         [weak](QDBusPendingCallWatcher* w) {
                             if (auto state = weak.lock()) {
                                 std::lock_guard<std::mutex> lock(state->mutex);
                                 state->checkReplies();
                             }
                             w->deleteLater();
                         });
    }
}

} // namespace qv

namespace qv {

bool DesktopNotificationDelivery::flush(double seconds) {
    // The connection's own thread takes the answers in; this only looks.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(std::isfinite(seconds) ? seconds : 0.0);
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(s_->mutex);
            s_->checkReplies();
            if (s_->pending.empty()) return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

} // namespace qv
