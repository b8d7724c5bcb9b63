// One container at a database's parameters (logN 14, r 8, p 1: 16 MiB and a
// fraction of a second), ours against the scrypt file tool's `enc`, in one
// run. The tool is given the same parameters through its --logN, -r and -p
// options, which make it skip its own speed measurement just as
// scryptenc_buf_given does; its passphrase comes from a private file.
//
// The tool's time includes starting a process; `scrypt --version` is timed
// too (tool_startup_ms) so the reader can judge how much of it that is.
// Iterations alternate ours and the tool's, so a change of load on the
// machine hits both alike.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "vault/QVCrypto.h"

namespace {

constexpr int kLogN = 14;
constexpr uint32_t kR = 8;
constexpr uint32_t kP = 1;
const char* kTool = "/usr/bin/scrypt";

using qv::bench::Clock;
using qv::bench::secondsSince;


void BM_ContainerVsScryptTool(benchmark::State& state) {
    if (access(kTool, X_OK) != 0) {
        state.SkipWithError("/usr/bin/scrypt is not installed");
        return;
    }
    char tmpl[] = "/tmp/qvbench-XXXXXX";
    if (!mkdtemp(tmpl)) {
        state.SkipWithError("no temporary directory");
        return;
    }
    const std::string dir = tmpl;
    const std::string password = "benchmark password";
    const qv::Bytes plain(64, 'x');
    {
        int fd = open((dir + "/pass").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fd >= 0) {
            (void)!write(fd, password.data(), password.size());
            close(fd);
        }
        std::ofstream(dir + "/plain", std::ios::binary).write(reinterpret_cast<const char*>(plain.data()), 64);
    }
    const qv::Bytes pass(password.begin(), password.end());
    const qv::Bytes salt = qv::QVCrypto::randomDataOfLength(32, 0, 255);
    const std::vector<std::string> toolArgs = {"enc", "--passphrase", "file:" + dir + "/pass", "--logN",
                                               std::to_string(kLogN), "-r", std::to_string(kR), "-p",
                                               std::to_string(kP), dir + "/plain", dir + "/out"};
    qv::Bytes out(plain.size() + 128);

    double ours = 0, tool = 0, startup = 0;
    bool failed = false;
    for (auto _ : state) {
        auto t0 = Clock::now();
        int rc = qv::scryptenc_buf_given(plain.data(), plain.size(), out.data(), pass.data(), pass.size(), salt.data(),
                                         kLogN, kR, kP);
        double a = secondsSince(t0);
        benchmark::DoNotOptimize(out.data());

        std::filesystem::remove(dir + "/out");
        t0 = Clock::now();
        bool ok = qv::bench::runTool(kTool, toolArgs);
        double b = secondsSince(t0);

        t0 = Clock::now();
        qv::bench::runTool(kTool, {"--version"});
        startup += secondsSince(t0);

        if (rc != 0 || !ok) {
            failed = true;
            break;
        }
        ours += a;
        tool += b;
        state.SetIterationTime(a);
    }
    std::filesystem::remove_all(dir);
    if (failed) {
        state.SkipWithError("a container could not be made");
        return;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["ours_ms"] = 1000 * ours / n;
    state.counters["tool_ms"] = 1000 * tool / n;
    state.counters["tool_startup_ms"] = 1000 * startup / n;
    state.counters["ours_over_tool"] = ours / tool;
    std::printf("ours/scrypt-tool ratio: %.3f (logN %d, r %u, p %u; ours %.1f ms, tool %.1f ms incl. %.1f ms start-up)\n",
                ours / tool, kLogN, kR, kP, 1000 * ours / n, 1000 * tool / n, 1000 * startup / n);
}

// A fixed count runs the function once, so the ratio line is printed once.
BENCHMARK(BM_ContainerVsScryptTool)->Iterations(8)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
