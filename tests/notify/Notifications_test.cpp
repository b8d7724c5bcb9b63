// The notification centre: which messages reach which delivery, progress
// handles, the main-thread rule, and the console front end's output and questions.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QThread>
#include <cmath>
#include <thread>
#include <unistd.h>

#include "support/QtApp.h"
#include "toolkit/LogCapture.h"
#include "notify/NotificationConsole.h"
#include "notify/QVNotificationCenter.h"

using namespace qv;
using qv::test::LogCapture;

namespace {

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
    for (ssize_t n; (n = ::read(fd, buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
    return out;
}

} // namespace

TEST_F(NotificationsTest, InfoSwitchAndMutingDropWhatTheyShouldAndNothingElse) {
    prefs->values["QVShowInfoNotifications"] = false;
    centre.postInfo("hidden info", false);
    centre.postAlert("alert", true);
    settle();
    ASSERT_EQ(ways[1]->count(), 1u);
    EXPECT_EQ(ways[1]->shown[0]->title(), "Alert!");
    centre.setMuting(true);
    centre.postCritical("c", false);
    centre.setYesNoHandler([&](const std::string&, bool d) { return !d; });
    EXPECT_TRUE(centre.postYesNo("Sure?", false)) << "a question ignores muting";
    auto handle = centre.postProgress("p", true, false);
    ASSERT_TRUE(handle) << "a muted progress message still gives a handle";
    QVNotificationCenter::updateProgress(handle, 0.5);
    settle();
    EXPECT_TRUE(ways[1]->count() == 1u && ways[1]->updates.empty());
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
    EXPECT_EQ(ways[0]->count(), 1u);
    EXPECT_EQ(fallback->count(), 1u) << "a way with no delivery falls back";
    EXPECT_TRUE(log.has("INFO: Posted critical message: no tray here"));
}

TEST(NotificationThreads, WorkersPostAndAskThroughTheMainThread) {
    QCoreApplication& app = test::qtApp();
    LogCapture quiet;
    QVNotificationCenter centre;
    auto rec = std::make_shared<Recording>();
    centre.setDelivery(QVNotificationWayBuiltIn, rec);
    QThread* askedOn = nullptr;
    centre.setYesNoHandler([&](const std::string&, bool) { askedOn = QThread::currentThread(); return true; });

    centre.postAlert("from main", false);
    EXPECT_EQ(rec->count(), 0u) << "posting never delivers in the poster's call";
    std::atomic<bool> answer{false}, done{false};
    std::thread worker([&] {
        centre.postCritical("from a worker", false);
        auto bar = centre.postProgress("work", true, false);
        for (double amount : {1.01, double(NAN), 0.5}) QVNotificationCenter::updateProgress(bar, amount);
        answer = centre.postYesNo("Continue?", false);
        done = true;
    });
    test::processEventsUntil([&] { return done.load(); }, 30000);
    worker.join();
    settle();
    ASSERT_EQ(rec->count(), 3u);
    EXPECT_EQ(rec->lastThread, app.thread());
    EXPECT_EQ(rec->updates, std::vector<double>{0.5}) << "amounts outside 0..1 are refused";
    EXPECT_TRUE(answer);
    EXPECT_EQ(askedOn, app.thread());
}

TEST(NotificationConsole, PrintsTitledLinesAndAsksOnTheTerminal) {
    test::qtApp();
    int p[2];
    ASSERT_EQ(::pipe(p), 0);
    QVNotificationCenter centre;
    centre.setFallbackDelivery(std::make_shared<ConsoleNotificationDelivery>(p[1]));
    centre.postAlert("Folder \x1b[31mred\x1b[0m\nlocked", false);
    auto bar = centre.postProgress("Copying", true, false);
    for (double a : {0.05, 0.12, 0.15, 1.0}) QVNotificationCenter::updateProgress(bar, a);
    settle();
    ::close(p[1]);
    EXPECT_EQ(drain(p[0]),
              "Alert!: Folder ?[31mred?[0m\nlocked\n"
              "Operation In Progress: Copying\n"
              "Operation In Progress: Copying (12%)\n"
              "Operation In Progress: Copying (100%)\n");
    ::close(p[0]);

    auto ask = [](const std::string& typed, bool def, std::string* shown) {
        int in[2], out[2];
        if (::pipe(in) || ::pipe(out)) return !def;
        (void)!::write(in[1], typed.data(), typed.size());
        ::close(in[1]);
        const bool answer = QVAskYesNo(in[0], out[1], "Eject?", def);
        ::close(out[1]);
        *shown = drain(out[0]);
        for (int fd : {in[0], out[0]}) ::close(fd);
        return answer;
    };
    std::string shown;
    EXPECT_FALSE(ask("maybe\n n \n", true, &shown));
    EXPECT_EQ(shown, "Eject? [Y/n] Eject? [Y/n] ");
    EXPECT_TRUE(ask("", true, &shown)) << "end of input takes the default";
    EXPECT_TRUE(ask("what\nhuh\neh\nno\n", true, &shown)) << "three wrong answers take the default";
}
