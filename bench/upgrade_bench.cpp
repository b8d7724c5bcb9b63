// The database upgrade at the production scrypt cost, parallel against its own
// serial version in one run: fake sets made per second (each costs a lookup key,
// its folders' password containers and its blob) and fake images made per
// second (each a real image filled with random files). The parallel run makes
// sets one per core and images twice the cores at a time; the serial one both
// one at a time. Rounds alternate the two, each on a new database with one
// real set, so that a change of load hits both alike. The ratios must be above
// 1 on two cores for the parallel loops to pay off.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <QCoreApplication>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "BenchSupport.h"
#include "deniability/MigrationTask.h"
#include "deniability/PDAssistant.h"
#include "tasks/BaseFolderTask.h"
#include "vault/Locations.h"
#include "vault/UserDefaults.h"

namespace {

namespace fs = std::filesystem;
using qv::bench::Clock;
using qv::bench::secondsSince;

// Images of 24 MiB of content each; the sets are the upgrade's own number (5 to 15 in all).
const std::vector<uint64_t> kImageSizes(6, 24u << 20);

QCoreApplication& app() {
    static int argc = 1;
    static char name[] = "qv_bench";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* instance = new QCoreApplication(argc, argv);
    return *instance;
}

// A home of its own for one round, removed afterwards.
struct Home {
    std::string root;
    Home() {
        std::string tmpl = (fs::temp_directory_path() / "qvbench-upgrade.XXXXXX").string();
        root = ::mkdtemp(tmpl.data());
        for (const char* dir : {"/share", "/config", "/run", "/Documents"}) fs::create_directories(root + dir);
        ::chmod((root + "/run").c_str(), 0700);
        ::setenv("HOME", root.c_str(), 1);
        ::setenv("XDG_DATA_HOME", (root + "/share").c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", (root + "/config").c_str(), 1);
        ::setenv("XDG_RUNTIME_DIR", (root + "/run").c_str(), 1);
        ::setenv("QV_TOOL_DIR", QV_TOOL_BUILD_DIR, 1);
        qv::QVLocationsForgetCache();
        qv::QVUserDefaults::standardUserDefaults().reopen();
    }
    ~Home() {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
};

// Times the two phases by the labels the upgrade shows.
struct TimingView : qv::PDAssistantView {
    Clock::time_point start = Clock::now(), imagesFrom{}, end{};
    bool ended = false;
    std::optional<qv::QVError> error;
    void setLabels(const std::string& title, const std::string&) override {
        if (title == "Creating fake disk images..." || title == "Cancelling migration...") imagesFrom = Clock::now();
    }
    void showProgress(double, bool) override {}
    void setCancelEnabled(bool) override {}
    void setNextEnabled(bool) override {}
    void setPreviousEnabled(bool) override {}
    void showSheet(const std::string&, const std::string&) override {}
    void showFatalErrorAndExit(const std::string&) override {}
    void goBack() override {}
    void migrationDidEnd(const std::optional<qv::QVError>& e, bool) override {
        end = Clock::now();
        ended = true;
        error = e;
    }
};

struct Round {
    double setsPerSecond = 0, imagesPerSecond = 0;
    bool ok = false;
};

Round upgradeOnce(bool parallel) {
    Home home;
    auto master = qv::DBMaster::initWithMasterDBURL(qv::quillvaneURL(0), false, nullptr);
    auto real = qv::DBSubdb::subdbWithFolders({}, "real set");
    if (!master->addSubDB(real, true, nullptr) || !real->save(nullptr)) return {};
    TimingView view;
    auto assistant = std::make_shared<qv::PDAssistant>(master, view, true);
    assistant->fakeImageSizes = kImageSizes;
    auto op = qv::MigrationTask::taskWithAssistant(assistant);
    auto task = qv::MigrationTask::taskOf(op);
    task->setWidth = parallel ? 0 : 1;
    task->imageWidth = parallel ? 0 : 1;
    qv::OperationQueue queue;
    view.start = Clock::now();
    if (!qv::addFolderTask(queue, op)) return {};
    while (!view.ended) app().processEvents(QEventLoop::AllEvents, 50);
    Round round;
    round.ok = !view.error;
    const double setsTime = std::chrono::duration<double>(view.imagesFrom - view.start).count();
    const double imagesTime = std::chrono::duration<double>(view.end - view.imagesFrom).count();
    auto after = qv::DBMaster::initWithMasterDBURL(qv::quillvaneURL(0), false, nullptr);
    round.setsPerSecond = setsTime > 0 ? double(after->subDBCount() - 1) / setsTime : 0;
    round.imagesPerSecond = imagesTime > 0 ? double(kImageSizes.size()) / imagesTime : 0;
    return round;
}

void BM_Upgrade_ParallelVsSerial(benchmark::State& state) {
    app();
    double parallelSets = 0, serialSets = 0, parallelImages = 0, serialImages = 0;
    for (auto _ : state) {
        Round p = upgradeOnce(true);
        Round s = upgradeOnce(false);
        if (!p.ok || !s.ok) state.SkipWithError("an upgrade failed");
        parallelSets += p.setsPerSecond;
        serialSets += s.setsPerSecond;
        parallelImages += p.imagesPerSecond;
        serialImages += s.imagesPerSecond;
    }
    const double n = double(state.iterations());
    state.counters["cores"] = double(qv::MigrationTask::countCores());
    state.counters["sets_per_s_parallel"] = parallelSets / n;
    state.counters["sets_per_s_serial"] = serialSets / n;
    state.counters["sets_parallel_over_serial"] = serialSets > 0 ? parallelSets / serialSets : 0;
    state.counters["images_per_s_parallel"] = parallelImages / n;
    state.counters["images_per_s_serial"] = serialImages / n;
    state.counters["images_parallel_over_serial"] = serialImages > 0 ? parallelImages / serialImages : 0;
}

} // namespace

BENCHMARK(BM_Upgrade_ParallelVsSerial)->Unit(benchmark::kSecond)->Iterations(2);
