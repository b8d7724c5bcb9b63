// The notification centre: which messages reach which delivery, the preferences
// behind that choice, progress handles, the main-thread rule, and the console
// front end's output and questions.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QThread>
#include <cmath>
#include <thread>
#include <unistd.h>

#include "app/UserDefaults.h"
#include "support/QtApp.h"
#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "toolkit/LogCapture.h"
#include "ui/logic/NotificationConsole.h"
#include "ui/logic/QVNotificationCenter.h"
#include "ui/logic/QVNotificationColor.h"
#include "ui/logic/QVUserDefaultsPreferencesProvider.h"

using namespace qv;

namespace {

using qv::test::LogCapture;

struct Recording : NotificationDelivery {
    std::mutex mutex;
    std::vector<QVNotificationRef> shown;
    std::vector<double> updates;
    QThread* lastThread = nullptr;
    void deliver(const QVNotificationRef& n) override {
        std::lock_guard<std::mutex> lock(mutex);
        shown.push_back(n);
        lastThread = QThread::currentThread();
    }
    void progressChanged(const QVNotificationRef& n) override {
        std::lock_guard<std::mutex> lock(mutex);
        updates.push_back(n->progress());
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return shown.size();
    }
};

struct Prefs : PreferencesProvider {
    Dict values;
    Value fetchValueForPreference(const std::string& key) override { return QVDictGet(values, key); }
};

// A centre with a recording delivery on every way, and preferences the test sets.
struct NotificationsTest : ::testing::Test {
    QVNotificationCenter centre;
    std::shared_ptr<Recording> ways[3] = {std::make_shared<Recording>(), std::make_shared<Recording>(),
                                          std::make_shared<Recording>()};
    std::shared_ptr<Prefs> prefs = std::make_shared<Prefs>();
    void SetUp() override {
        test::qtApp();
        for (int w = 0; w < 3; ++w) centre.setDelivery(w, ways[w]);
        centre.setPreferencesProvider(prefs);
    }
};

// Runs what was posted to the main thread so far.
void settle() { QCoreApplication::processEvents(); }

std::string drain(int fd) {
    std::string out;
    char buf[256];
    ssize_t n;
    while ((n = ::read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
}

} // namespace

TEST_F(NotificationsTest, InfoSwitchAndMutingDropWhatTheyShouldAndNothingElse) {
    prefs->values["QVShowInfoNotifications"] = false;
    centre.postInfo("hidden info", false);
    centre.postAlert("alert", true);
    centre.postCritical("critical", false);
    centre.postProgress("copying", true, false);
    EXPECT_EQ(ways[1]->count(), 0u) << "posting never delivers in the poster's call";
    settle();
    ASSERT_EQ(ways[1]->count(), 3u);
    EXPECT_EQ(ways[1]->shown[0]->title(), "Alert!");
    EXPECT_TRUE(ways[1]->shown[0]->isSticky());
    EXPECT_EQ(ways[1]->shown[1]->title(), "Critical Alert!");
    EXPECT_EQ(ways[1]->shown[2]->title(), "Operation In Progress");
    EXPECT_EQ(centre.notifications().size(), 3u) << "built-in messages stay live until their panel dies";

    prefs->values["QVShowInfoNotifications"] = true;
    centre.setMuting(true);
    centre.postInfo("i", false);
    centre.postAlert("a", false);
    centre.postCritical("c", false);
    auto handle = centre.postProgress("p", true, false);
    int asked = 0;
    centre.setYesNoHandler([&](const std::string& m, bool d) { ++asked; EXPECT_EQ(m, "Sure?"); return !d; });
    EXPECT_TRUE(centre.postYesNo("Sure?", false)) << "a question ignores muting";
    EXPECT_EQ(asked, 1);
    ASSERT_TRUE(handle) << "a muted progress message still gives a handle";
    QVNotificationCenter::updateProgress(handle, 0.5);
    settle();
    EXPECT_EQ(ways[1]->count(), 3u);
    EXPECT_TRUE(ways[1]->updates.empty());

    centre.setMuting(false);
    centre.postInfo("shown info", false);
    settle();
    ASSERT_EQ(ways[1]->count(), 4u);
    EXPECT_EQ(ways[1]->shown[3]->title(), "Info");
}

TEST_F(NotificationsTest, TheWayChoosesTheDeliveryWithFallbackAndLogsAlerts) {
    LogCapture log;
    auto fallback = std::make_shared<Recording>();
    centre.setFallbackDelivery(fallback);
    // The way is read when the message is shown, on the main thread.
    prefs->values["QVNotificationType"] = 0;
    centre.postAlert("to the daemon", false);
    settle();
    prefs->values["QVNotificationType"] = 2;
    centre.setDelivery(2, nullptr);
    centre.postCritical("no tray here", false);
    settle();
    prefs->values["QVNotificationType"] = 7;
    centre.postAlert("nowhere", false);
    settle();
    EXPECT_EQ(ways[0]->count(), 1u);
    EXPECT_EQ(fallback->count(), 1u) << "a way with no delivery falls back";
    EXPECT_EQ(ways[1]->count(), 0u);
    EXPECT_TRUE(centre.notifications().empty()) << "only the built-in way keeps messages live";
    EXPECT_TRUE(log.has("INFO: Posted alert message: to the daemon"));
    EXPECT_TRUE(log.has("INFO: Posted critical message: no tray here"));
    EXPECT_TRUE(log.has("INFO: Posted alert message: nowhere")) << "logged even when nothing shows it";

    centre.setFallbackDelivery(nullptr);
    centre.postInfo("dropped", false);
    settle();
    EXPECT_EQ(fallback->count(), 1u);
    EXPECT_FALSE(log.has("dropped")) << "info messages are not logged";
}

TEST_F(NotificationsTest, LifespanTitlesAndBadInput) {
    LogCapture log;
    EXPECT_DOUBLE_EQ(centre.delay(), 5.0);
    centre.postAlert("a", false);
    centre.setDelay(2.5);
    centre.setDelay(-1);
    centre.setDelay(NAN);
    centre.postAlert("b", false);
    settle();
    EXPECT_DOUBLE_EQ(ways[1]->shown[0]->timeRemaining(), 5.0);
    EXPECT_DOUBLE_EQ(ways[1]->shown[1]->timeRemaining(), 2.5) << "refused delays leave the old one";
    EXPECT_TRUE(log.has("refused notification delay"));

    EXPECT_EQ(QVNotificationCenter::typeToName(0), "Info");
    EXPECT_EQ(QVNotificationCenter::typeToName(3), "Operation In Progress");
    EXPECT_EQ(QVNotificationCenter::typeToName(4), "");
    EXPECT_TRUE(log.has("ERROR (typeToName:")) << "the log names the function";
    EXPECT_TRUE(log.has("): no such type: 4"));
}

TEST_F(NotificationsTest, ProgressHandlesRefuseAmountsOutsideZeroToOne) {
    LogCapture log;
    auto bar = centre.postProgress("indeterminate", false, false);
    settle();
    ASSERT_EQ(ways[1]->count(), 1u);
    EXPECT_FALSE(bar->isDeterminate());
    EXPECT_TRUE(bar->isBusy());
    for (double bad : {1.01, -0.1, double(NAN), double(INFINITY)}) QVNotificationCenter::updateProgress(bar, bad);
    settle();
    EXPECT_TRUE(ways[1]->updates.empty());
    EXPECT_TRUE(log.has("progress amount out of range 0..1: 1.01"));
    EXPECT_DOUBLE_EQ(bar->progress(), 0.0);

    QVNotificationCenter::updateProgress(bar, 0.4);
    settle();
    EXPECT_TRUE(bar->isBusy());
    EXPECT_FALSE(bar->isDeterminate());
    QVNotificationCenter::updateProgress(bar, 1.0);
    settle();
    EXPECT_FALSE(bar->isBusy()) << "a finished message may time out";
    EXPECT_TRUE(bar->isDeterminate()) << "a finished bar is shown full";
    EXPECT_EQ(ways[1]->updates, (std::vector<double>{0.4, 1.0}));
    QVNotificationCenter::updateProgress(nullptr, 0.5);
    EXPECT_TRUE(log.has("no notification to update"));
}

TEST(NotificationPreferences, ProviderFirstThenBuiltInDefaults) {
    LogCapture log;
    QVNotificationCenter centre;
    EXPECT_EQ(centre.fetchValueForPreference("QVNotificationType").toInt(), 1);
    EXPECT_TRUE(centre.fetchValueForPreference("QVShowInfoNotifications").toBool());
    EXPECT_EQ(QVColorFromValue(centre.fetchValueForPreference("QVCriticalBGColor")),
              (QVColor{0.538, 0.063, 0.12, 1.0}));
    EXPECT_EQ(QVColorFromValue(centre.fetchValueForPreference("QVAlertFGColor")), QVColorWhite);
    EXPECT_EQ(QVColorFromValue(centre.fetchValueForPreference("OtherFGColor")), QVColorWhite);
    EXPECT_TRUE(centre.fetchValueForPreference("QVNoSuchKey").isNull());
    EXPECT_TRUE(log.has("): No such preference: QVNoSuchKey"));

    auto prefs = std::make_shared<Prefs>();
    prefs->values["QVNotificationType"] = 2;
    centre.setPreferencesProvider(prefs);
    EXPECT_EQ(centre.fetchValueForPreference("QVNotificationType").toInt(), 2);
    EXPECT_TRUE(centre.fetchValueForPreference("QVShowInfoNotifications").toBool()) << "no answer: the default";
}

TEST(NotificationPreferences, UserDefaultsGiveColoursAndRefuseWhatIsNotOne) {
    test::TempHome home;
    LogCapture log;
    auto& defaults = QVUserDefaults::standardUserDefaults();
    defaults.setObject("QVInfoBGColor", QVColorToValue({0.25, 0.5, 0.75, 0.5}));
    defaults.setObject("QVAlertBGColor", "#ff000080");
    defaults.setObject("QVCriticalBGColor", "red");
    defaults.setObject("QVNotificationType", 2);
    ASSERT_TRUE(defaults.synchronize());
    defaults.reopen();

    QVNotificationCenter centre;
    centre.setUserDefaultsPreferencesProvider();
    EXPECT_EQ(QVColorFromValue(centre.fetchValueForPreference("QVInfoBGColor")), (QVColor{0.25, 0.5, 0.75, 0.5}));
    EXPECT_EQ(QVColorFromValue(centre.fetchValueForPreference("QVAlertBGColor")),
              (QVColor{1.0, 0.0, 0.0, 128 / 255.0}));
    EXPECT_EQ(QVColorFromValue(centre.fetchValueForPreference("QVCriticalBGColor")),
              (QVColor{0.538, 0.063, 0.12, 1.0}))
        << "a stored value that isn't a colour gives way to the default";
    EXPECT_TRUE(log.has("the setting QVCriticalBGColor is not a colour"));
    EXPECT_EQ(centre.fetchValueForPreference("QVNotificationType").toInt(), 2);

    for (const Value& bad : {Value::newArray({Value(0.1), Value(0.2)}), Value::newArray({Value(1.5), Value(0), Value(0)}),
                             Value::newArray({Value("a"), Value(0), Value(0)}), Value("#12345"), Value("#gg0000")})
        EXPECT_FALSE(QVColorFromValue(bad)) << bad.description();
}

TEST(NotificationThreads, WorkersPostAndAskThroughTheMainThread) {
    QCoreApplication& app = test::qtApp();
    QVNotificationCenter centre;
    auto rec = std::make_shared<Recording>();
    centre.setDelivery(QVNotificationWayBuiltIn, rec);
    QThread* askedOn = nullptr;
    centre.setYesNoHandler([&](const std::string&, bool) { askedOn = QThread::currentThread(); return true; });

    centre.postAlert("from main", false);
    EXPECT_EQ(rec->count(), 0u) << "posting never delivers in the poster's call";
    std::atomic<bool> answer{false}, done{false};
    QVNotificationRef bar;
    std::thread worker([&] {
        centre.postCritical("from a worker", false);
        bar = centre.postProgress("work", true, false);
        QVNotificationCenter::updateProgress(bar, 0.5);
        answer = centre.postYesNo("Continue?", false);
        done = true;
    });
    test::processEventsUntil([&] { return done.load(); }, 30000);
    worker.join();
    settle();
    ASSERT_EQ(rec->count(), 3u);
    EXPECT_EQ(rec->shown[1]->msg(), "from a worker");
    EXPECT_EQ(rec->lastThread, app.thread());
    EXPECT_EQ(rec->updates, std::vector<double>{0.5});
    EXPECT_TRUE(answer);
    EXPECT_EQ(askedOn, app.thread());
}

TEST(NotificationPanels, PlacementStacksDownwardsThenStartsAColumn) {
    const QVRect screen{0, 0, 1000, 300};
    QVRect first = QVNotificationCenter::availableRect(200, 80, screen, {});
    EXPECT_EQ(first, (QVRect{785, 40, 200, 80}));
    QVRect second = QVNotificationCenter::availableRect(200, 80, screen, {first});
    EXPECT_EQ(second, (QVRect{785, 135, 200, 80})) << "15 points below the first";
    QVRect third = QVNotificationCenter::availableRect(200, 80, screen, {first, second});
    EXPECT_EQ(third, (QVRect{570, 40, 200, 80})) << "the next one would pass the bottom";
    EXPECT_EQ(QVNotificationCenter::availableRect(200, 80, screen, {second}), first) << "a freed slot is taken again";
    QVRect lower{785, 150, 200, 80};
    EXPECT_EQ(QVNotificationCenter::availableRect(200, 80, screen, {first, lower}).x, 570)
        << "a gap narrower than a panel is skipped";

    LogCapture log;
    QVNotificationCenter centre;
    centre.destroyNotification(std::make_shared<QVNotification>(0, "x", 1, false));
    EXPECT_TRUE(log.has("couldn't find notification, probably auto-destroyed"));
}

TEST(NotificationConsole, PrintsTitledLinesAndAsksOnTheTerminal) {
    test::qtApp();
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    auto console = std::make_shared<ConsoleNotificationDelivery>(p[1]);
    QVNotificationCenter centre;
    centre.setFallbackDelivery(console);
    centre.postAlert("Folder \x1b[31mred\x1b[0m\nlocked", false);
    auto bar = centre.postProgress("Copying", true, false);
    for (double a : {0.05, 0.12, 0.15, 0.5, 1.0}) QVNotificationCenter::updateProgress(bar, a);
    settle();
    ::close(p[1]);
    EXPECT_EQ(drain(p[0]),
              "Alert!: Folder ?[31mred?[0m\nlocked\n"
              "Operation In Progress: Copying\n"
              "Operation In Progress: Copying (12%)\n"
              "Operation In Progress: Copying (50%)\n"
              "Operation In Progress: Copying (100%)\n");
    ::close(p[0]);

    auto ask = [](const std::string& typed, bool def, std::string* shown) {
        int in[2], out[2];
        if (::pipe(in) || ::pipe(out)) return !def;
        (void)!::write(in[1], typed.data(), typed.size());
        ::close(in[1]);
        bool answer = QVAskYesNo(in[0], out[1], "Eject?", def);
        ::close(out[1]);
        *shown = drain(out[0]);
        ::close(in[0]);
        ::close(out[0]);
        return answer;
    };
    std::string shown;
    EXPECT_TRUE(ask("YES\n", false, &shown));
    EXPECT_EQ(shown, "Eject? [y/N] ");
    EXPECT_FALSE(ask("\n", false, &shown));
    EXPECT_TRUE(ask("", true, &shown)) << "end of input takes the default";
    EXPECT_FALSE(ask("maybe\n n \n", true, &shown));
    EXPECT_EQ(shown, "Eject? [Y/n] Eject? [Y/n] ");
    EXPECT_TRUE(ask("what\nhuh\neh\nno\n", true, &shown)) << "three wrong answers take the default";
}
