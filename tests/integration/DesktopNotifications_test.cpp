// Desktop notifications over a real D-Bus: a private bus daemon, and a small
// notification daemon inside the test process that records what it is sent.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVirtualObject>
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/QtApp.h"
#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "ui/logic/DesktopNotifications.h"
#include "ui/logic/QVNotificationCenter.h"

using namespace qv;

namespace {

// A dbus-daemon of our own with an open policy and no services to activate.
// Killed when the object goes, and by the kernel if the test process dies.
class PrivateBus {
public:
    PrivateBus() {
        dir_ = test::makeTempDir("qvbus");
        const std::string config = dir_ + "/bus.conf";
        std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                                 " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                                 "<busconfig><type>session</type><listen>unix:dir="
                              << dir_
                              << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                                 "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                                 "<allow own=\"*\"/></policy></busconfig>\n";
        const std::string configArg = "--config-file=" + config;
        const char* argv[] = {"/usr/bin/dbus-daemon", configArg.c_str(), "--nofork", "--print-address=1", nullptr};
        int out[2];
        if (::pipe(out) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(out[1], 1);
            ::close(out[0]);
            ::execv(argv[0], const_cast<char* const*>(argv));
            ::_exit(127);
        }
        ::close(out[1]);
        char c;
        while (::read(out[0], &c, 1) == 1 && c != '\n') address_ += c;
        ::close(out[0]);
    }
    ~PrivateBus() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    const std::string& address() const { return address_; }

private:
    std::string dir_, address_;
    pid_t pid_ = -1;
};

struct Received {
    QString app, icon, summary, body;
    uint replaces = 99;
    QStringList actions;
    QVariantMap hints;
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
        calls.push_back({a[0].toString(), a[2].toString(), a[3].toString(), a[4].toString(), a[1].toUInt(),
                         a[5].toStringList(), qdbus_cast<QVariantMap>(a[6]), a[7].toInt()});
        return connection.send(message.createReply(QVariant::fromValue(uint(calls.size()))));
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return calls.size();
    }
};

bool pumpUntil(const std::function<bool()>& done) { return test::processEventsUntil(done, 20000); }

class DesktopNotifications : public ::testing::Test {
protected:
    void SetUp() override { test::qtApp(); }
    // A centre that delivers way 0 through `delivery`.
    void useDelivery(std::shared_ptr<NotificationDelivery> delivery) {
        centre.setDelivery(QVNotificationWayDesktop, std::move(delivery));
        centre.setPreferencesProvider(prefs);
    }
    void TearDown() override { QVLogSetSink(nullptr); }

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
    ASSERT_FALSE(bus.address().empty()) << "dbus-daemon did not start";
    FakeDaemon daemon;
    QDBusConnection side = QDBusConnection::connectToBus(QString::fromStdString(bus.address()), "fake-daemon");
    ASSERT_TRUE(side.registerVirtualObject("/org/freedesktop/Notifications", &daemon));
    ASSERT_TRUE(side.registerService("org.freedesktop.Notifications"));

    useDelivery(std::make_shared<DesktopNotificationDelivery>(bus.address()));
    centre.setDelay(2.5);
    centre.postAlert("Folder A & B <locked>", false);
    centre.postCritical("Couldn't eject", true);
    centre.postInfo("Unlocked", false);
    ASSERT_TRUE(pumpUntil([&] { return daemon.count() == 3; })) << daemon.count();
    const Received& alert = daemon.calls[0];
    EXPECT_EQ(alert.app, "Quillvane");
    EXPECT_EQ(alert.replaces, 0u);
    EXPECT_EQ(alert.icon, "");
    EXPECT_EQ(alert.summary, "Alert!");
    EXPECT_EQ(alert.body, "Folder A & B <locked>") << "a daemon without markup gets the text as it is";
    EXPECT_TRUE(alert.actions.isEmpty());
    EXPECT_EQ(alert.timeout, 2500);
    ASSERT_TRUE(alert.hints.contains("urgency"));
    EXPECT_EQ(alert.hints["urgency"].metaType().id(), QMetaType::UChar) << "urgency is a byte";
    EXPECT_EQ(alert.hints["urgency"].toInt(), 1);
    EXPECT_EQ(daemon.calls[1].summary, "Critical Alert!");
    EXPECT_EQ(daemon.calls[1].hints["urgency"].toInt(), 2);
    EXPECT_EQ(daemon.calls[1].timeout, 0) << "a sticky message never expires";
    EXPECT_EQ(daemon.calls[2].summary, "Info");
    EXPECT_EQ(daemon.calls[2].hints["urgency"].toInt(), 1);

    // A daemon that reads markup gets the text escaped, once it has said so.
    daemon.capabilities = {"body", "body-markup"};
    useDelivery(std::make_shared<DesktopNotificationDelivery>(bus.address()));
    centre.postAlert("first", false);
    ASSERT_TRUE(pumpUntil([&] { return daemon.count() == 4; }));
    centre.postAlert("A & B <c>", false);
    ASSERT_TRUE(pumpUntil([&] { return daemon.count() == 5; }));
    EXPECT_EQ(daemon.calls[4].body, "A &amp; B &lt;c&gt;");

    useDelivery(nullptr);
    side.unregisterService("org.freedesktop.Notifications");
    side.unregisterObject("/org/freedesktop/Notifications");
    QDBusConnection::disconnectFromBus("fake-daemon");
}

TEST_F(DesktopNotifications, NoBusOrNoDaemonWarnsOnceAndDropsWithoutBlocking) {
    std::mutex mutex;
    std::vector<std::string> warnings;
    QVLogSetSink([&](const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex);
        if (line.rfind("WARN (", 0) == 0) warnings.push_back(line);
    });
    auto countOf = [&](const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::count_if(warnings.begin(), warnings.end(),
                             [&](const std::string& w) { return w.find(text) != std::string::npos; });
    };

    // The user's session bus, with no bus behind the address.
    const char* saved = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    std::string savedValue = saved ? saved : "";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/qv-no-bus", 1);
    useDelivery(std::make_shared<DesktopNotificationDelivery>());
    centre.postAlert("one", false);
    centre.postCritical("two", true);
    EXPECT_TRUE(centre.flush(5)) << "nothing waits for a bus that isn't there";
    if (saved)
        ::setenv("DBUS_SESSION_BUS_ADDRESS", savedValue.c_str(), 1);
    else
        ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    EXPECT_EQ(countOf("no D-Bus session bus for desktop notifications"), 1);

    // A bus on which no daemon answers.
    PrivateBus bus;
    ASSERT_FALSE(bus.address().empty());
    useDelivery(std::make_shared<DesktopNotificationDelivery>(bus.address()));
    centre.postAlert("three", false);
    ASSERT_TRUE(centre.flush(20)) << "the bus refuses at once for a name nobody owns";
    EXPECT_EQ(countOf("no desktop notification daemon answers"), 1);
    centre.postAlert("four", false);
    centre.postInfo("five", false);
    ASSERT_TRUE(centre.flush(20));
    EXPECT_EQ(countOf("no desktop notification daemon answers"), 1);
    useDelivery(nullptr);
}
