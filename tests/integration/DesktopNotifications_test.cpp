// Desktop notifications over a real D-Bus: a private bus daemon, and a small
// notification daemon inside the test process that records what it is sent.
#include <gtest/gtest.h>

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVirtualObject>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>

#include "automation/AutomationTestSupport.h"
#include "image/ImageTestSupport.h"
#include "support/QtApp.h"
#include "toolkit/LogCapture.h"
#include "notify/DesktopNotifications.h"

using namespace qv;

namespace {

// A dbus-daemon of our own with an open policy and no services to activate.
class PrivateBus {
public:
    PrivateBus() {
        std::ofstream(dir_ + "/bus.conf")
            << "<busconfig><type>session</type><listen>unix:path=" << dir_ << "/socket</listen><auth>EXTERNAL</auth>"
            << "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
            << "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
        pid_ = test::startHolder({"/usr/bin/dbus-daemon", "--config-file=" + dir_ + "/bus.conf", "--nofork"});
        for (int i = 0; i < 200 && !up(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    ~PrivateBus() {
        test::stopChild(pid_);
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    bool up() const { return std::filesystem::exists(dir_ + "/socket"); }
    std::string address() const { return "unix:path=" + dir_ + "/socket"; }

private:
    std::string dir_ = test::makeTempDir("qvbus");
    pid_t pid_ = -1;
};

struct Received {
    std::string app, summary, body;
    QVariant urgency;
    int timeout = -99;
};

class FakeDaemon : public QDBusVirtualObject {
public:
    QStringList capabilities;  // empty: GetCapabilities is unknown, as with a minimal daemon
    std::mutex mutex;
    std::vector<Received> calls;

    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        std::lock_guard<std::mutex> lock(mutex);
        if (message.member() == "GetCapabilities" && !capabilities.isEmpty())
            return connection.send(message.createReply(QVariant(capabilities)));
        if (message.member() != "Notify" || message.signature() != "susssasa{sv}i") return false;
        const QList<QVariant> a = message.arguments();
        calls.push_back({a[0].toString().toStdString(), a[3].toString().toStdString(), a[4].toString().toStdString(),
                         qdbus_cast<QVariantMap>(a[6])["urgency"], a[7].toInt()});
        return connection.send(message.createReply(QVariant::fromValue(uint(calls.size()))));
    }
    bool received(size_t n) {
        return test::processEventsUntil([&] {
            std::lock_guard<std::mutex> lock(mutex);
            return calls.size() == n;
        }, 20000);
    }
};

class DesktopNotifications : public ::testing::Test {
protected:
    void SetUp() override { test::qtApp(); }
    // The centre delivers way 0 through `delivery`.
    void useDelivery(std::shared_ptr<NotificationDelivery> delivery) {
        centre.setDelivery(QVNotificationWayDesktop, std::move(delivery));
        centre.setPreferencesProvider(prefs);
    }
    struct WayZero : PreferencesProvider {
        Value fetchValueForPreference(const std::string& key) override {
            return key == "QVNotificationType" ? Value(0) : Value();
        }
    };
    QVNotificationCenter centre;
    std::shared_ptr<WayZero> prefs = std::make_shared<WayZero>();
};

} // namespace

TEST_F(DesktopNotifications, MessagesReachTheDaemonWithTitleTextUrgencyAndTimeout) {
    PrivateBus bus;
    ASSERT_TRUE(bus.up()) << "dbus-daemon did not start";
    FakeDaemon daemon;
    QDBusConnection side = QDBusConnection::connectToBus(QString::fromStdString(bus.address()), "fake-daemon");
    ASSERT_TRUE(side.registerVirtualObject("/org/freedesktop/Notifications", &daemon));
    ASSERT_TRUE(side.registerService("org.freedesktop.Notifications"));

    useDelivery(std::make_shared<DesktopNotificationDelivery>(bus.address()));
    centre.setDelay(2.5);
    centre.postAlert("Folder A & B <locked>", false);
    centre.postCritical("Couldn't eject", true);
    centre.postInfo("Unlocked", false);
    ASSERT_TRUE(daemon.received(3));
    const Received &alert = daemon.calls[0], &critical = daemon.calls[1];
    EXPECT_EQ(alert.app + "|" + alert.summary + "|" + alert.body, "Quillvane|Alert!|Folder A & B <locked>")
        << "a daemon without markup gets the text as it is";
    EXPECT_TRUE(alert.timeout == 2500 && alert.urgency.toInt() == 1);
    EXPECT_EQ(alert.urgency.metaType().id(), QMetaType::UChar) << "urgency is a byte";
    EXPECT_TRUE(critical.summary == "Critical Alert!" && critical.urgency.toInt() == 2);
    EXPECT_EQ(critical.timeout, 0) << "a sticky message never expires";
    EXPECT_EQ(daemon.calls[2].summary, "Info");

    // A daemon that reads markup gets the text escaped, once it has said so.
    daemon.capabilities = {"body", "body-markup"};
    useDelivery(std::make_shared<DesktopNotificationDelivery>(bus.address()));
    centre.postAlert("first", false);
    ASSERT_TRUE(daemon.received(4));
    centre.postAlert("A & B <c>", false);
    ASSERT_TRUE(daemon.received(5));
    EXPECT_EQ(daemon.calls[4].body, "A &amp; B &lt;c&gt;");

    useDelivery(nullptr);
    side.unregisterObject("/org/freedesktop/Notifications");
    QDBusConnection::disconnectFromBus("fake-daemon");
}

TEST_F(DesktopNotifications, NoBusOrNoDaemonWarnsOnceAndDropsWithoutBlocking) {
    test::LogCapture log;
    auto warnings = [&](const std::string& text) {
        std::lock_guard<std::mutex> lock(log.mutex);
        return std::count_if(log.lines.begin(), log.lines.end(), [&](const std::string& l) {
            return l.rfind("WARN (", 0) == 0 && l.find(text) != std::string::npos;
        });
    };
    {
        // The user's session bus, with no bus behind the address.
        test::ScopedVariable noBus("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/qv-no-bus");
        useDelivery(std::make_shared<DesktopNotificationDelivery>());
        centre.postAlert("one", false);
        centre.postCritical("two", true);
        EXPECT_TRUE(centre.flush(5)) << "nothing waits for a bus that isn't there";
    }
    EXPECT_EQ(warnings("no D-Bus session bus for desktop notifications"), 1);

    // A bus on which nobody owns the name: refused at once, warned about once.
    PrivateBus bus;
    ASSERT_TRUE(bus.up());
    useDelivery(std::make_shared<DesktopNotificationDelivery>(bus.address()));
    centre.postAlert("three", false);
    centre.postInfo("four", false);
    ASSERT_TRUE(centre.flush(20));
    EXPECT_EQ(warnings("no desktop notification daemon answers"), 1);
    useDelivery(nullptr);
}
