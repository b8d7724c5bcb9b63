// The file-system services against the standard tools, side by side in one run
// on one tree of 20,000 small files in 200 folders (with some hard links):
//
// - the block count of the tree (num512BlocksInDir) against `du -s -B512`;
// - a copy of the tree (copyContentsFrom, no lifting) against `cp -a`, to the
//   same disk, each copy removed (untimed) before the next.
//
// The tools' times include starting a process; `du --version` and
// `cp --version` are timed too (*_startup_ms) so the reader can judge how much
// of it that is. Iterations alternate ours and the tool's, so a change of load
// hits both alike. QV_BENCH_DIR chooses where the tree lives (default: the
// temporary directory).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "disk/CopyEngine.h"
#include "disk/ProcessRunner.h"
#include "disk/SizeWalk.h"

namespace {

namespace fs = std::filesystem;
using qv::bench::Clock;
using qv::bench::secondsSince;

constexpr int kFolders = 200;
constexpr int kFilesPerFolder = 100;
constexpr int kHardLinks = 500;


// Writes out what the last round left in memory, so that it doesn't slow the next.
void syncDisk(const std::string& dir) {
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    ::syncfs(fd);
    ::close(fd);
}

// The tree, made once for the whole run and removed at exit.
class BenchTree {
public:
    static BenchTree& shared() {
        static BenchTree tree;
        return tree;
    }
    ~BenchTree() {
        std::error_code ec;
        fs::remove_all(root_, ec);
    }
    const std::string& root() const { return root_; }
    const std::string& tree() const { return tree_; }
    bool ok() const { return ok_; }

private:
    BenchTree() {
        const char* base = std::getenv("QV_BENCH_DIR");
        std::string tmpl = (base && *base ? std::string(base) : fs::temp_directory_path().string()) + "/qvdiskbench-XXXXXX";
        if (!mkdtemp(tmpl.data())) return;
        root_ = tmpl;
        tree_ = root_ + "/tree";
        std::mt19937 gen(42);
        std::string bytes(8192, '\0');
        for (char& c : bytes) c = static_cast<char>(gen());
        std::vector<std::string> files;
        for (int d = 0; d < kFolders; ++d) {
            const std::string dir = tree_ + "/folder " + std::to_string(d / 20) + "/sub" + std::to_string(d);
            fs::create_directories(dir);
            for (int f = 0; f < kFilesPerFolder; ++f) {
                const std::string path = dir + "/file-" + std::to_string(f) + ".dat";
                const size_t size = gen() % bytes.size();
                int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
                if (fd < 0) return;
                if (::write(fd, bytes.data(), size) != static_cast<ssize_t>(size)) {
                    ::close(fd);
                    return;
                }
                ::close(fd);
                files.push_back(path);
            }
        }
        for (int i = 0; i < kHardLinks; ++i) {
            std::error_code ec;
            fs::create_hard_link(files[static_cast<size_t>(i) * 37 % files.size()],
                                 tree_ + "/folder 0/link-" + std::to_string(i), ec);
        }
        syncDisk(root_);
        ok_ = true;
    }

    std::string root_;
    std::string tree_;
    bool ok_ = false;
};

// The counters of a comparison and its line: "<ours> / <tool> ratio: ...".
void report(benchmark::State& state, const char* ours, const std::string& tool, const char* toolCommand,
            double oursTime, double toolTime, double startup) {
    const double n = static_cast<double>(state.iterations());
    state.counters["ours_ms"] = 1000 * oursTime / n;
    state.counters[tool + "_ms"] = 1000 * toolTime / n;
    state.counters[tool + "_startup_ms"] = 1000 * startup / n;
    state.counters["ours_over_" + tool] = oursTime / toolTime;
    std::printf("%s / %s ratio: %.3f (%d files; ours %.1f ms, %s %.1f ms incl. %.1f ms start-up)\n", ours,
                toolCommand, oursTime / toolTime, kFolders * kFilesPerFolder + kHardLinks, 1000 * oursTime / n,
                tool.c_str(), 1000 * toolTime / n, 1000 * startup / n);
}

void BM_SizeWalkVsDu(benchmark::State& state) {
    BenchTree& t = BenchTree::shared();
    if (!t.ok() || ::access("/usr/bin/du", X_OK) != 0) {
        state.SkipWithError("no tree, or no /usr/bin/du");
        return;
    }
    const std::vector<std::string> duArgs{"-s", "-B512", t.tree()};
    // The two must agree before their speeds mean anything.
    qv::QVError error;
    auto duOut = qv::quickCommand("/usr/bin/du", duArgs, &error);
    const int64_t ours = qv::num512BlocksInDir(t.tree());
    if (!duOut || ours != std::stoll(*duOut)) {
        state.SkipWithError("num512BlocksInDir and du disagree");
        return;
    }
    double oursTime = 0, toolTime = 0, startup = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        benchmark::DoNotOptimize(qv::num512BlocksInDir(t.tree()));
        const double a = secondsSince(t0);
        t0 = Clock::now();
        const bool ok = qv::bench::runTool("/usr/bin/du", duArgs);
        const double b = secondsSince(t0);
        t0 = Clock::now();
        qv::bench::runTool("/usr/bin/du", {"--version"});
        startup += secondsSince(t0);
        if (!ok) {
            state.SkipWithError("du failed");
            return;
        }
        oursTime += a;
        toolTime += b;
        state.SetIterationTime(a);
    }
    report(state, "size walk", "du", "du -s", oursTime, toolTime, startup);
}
BENCHMARK(BM_SizeWalkVsDu)->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_CopyVsCp(benchmark::State& state) {
    BenchTree& t = BenchTree::shared();
    if (!t.ok() || ::access("/usr/bin/cp", X_OK) != 0) {
        state.SkipWithError("no tree, or no /usr/bin/cp");
        return;
    }
    const std::string oursDst = t.root() + "/ours";
    const std::string cpDst = t.root() + "/cp";
    double oursTime = 0, toolTime = 0, startup = 0;
    int round = 0;
    for (auto _ : state) {
        qv::QVError error;
        bool copied = false, ok = false;
        double a = 0, b = 0;
        auto runOurs = [&] {
            auto t0 = Clock::now();
            copied = qv::copyContentsFrom(t.tree(), t.root(), "ours", qv::QVFileOperationSkipPreflight, false, nullptr,
                                          &error);
            a = secondsSince(t0);
        };
        auto runCp = [&] {
            auto t0 = Clock::now();
            ok = qv::bench::runTool("/usr/bin/cp", {"-a", t.tree(), cpDst});
            b = secondsSince(t0);
        };
        // Each goes first every other round: the one after the clean-up would
        // otherwise always meet the journal still busy with the removals.
        if (round++ % 2 == 0) {
            runOurs();
            runCp();
        } else {
            runCp();
            runOurs();
        }
        auto t0 = Clock::now();
        qv::bench::runTool("/usr/bin/cp", {"--version"});
        startup += secondsSince(t0);
        std::error_code ec;
        fs::remove_all(oursDst, ec);
        fs::remove_all(cpDst, ec);
        syncDisk(t.root());
        if (!copied || !ok) {
            state.SkipWithError(copied ? "cp failed" : error.description.c_str());
            return;
        }
        oursTime += a;
        toolTime += b;
        state.SetIterationTime(a);
    }
    report(state, "copy engine", "cp", "cp -a", oursTime, toolTime, startup);
}
BENCHMARK(BM_CopyVsCp)->Iterations(6)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
