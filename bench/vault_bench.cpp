// What opening a Folder Set costs with production scrypt parameters: a right
// password (the lookup derivation plus the blob's decryption) against a wrong
// one (the lookup derivation alone), in one run. The ratio right/wrong is what
// a guesser saves by stopping at "not found": about half.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "vault/DBMaster.h"

namespace {

struct Database {
    std::string dir;
    qv::DBMasterRef master;
    Database() {
        std::string tmpl = (std::filesystem::temp_directory_path() / "qvbench.XXXXXX").string();
        dir = ::mkdtemp(tmpl.data());
        master = qv::DBMaster::initWithMasterDBURL(dir + "/database3", false, nullptr);
        auto set = qv::DBSubdb::subdbWithFolders({}, "right password");
        master->addSubDB(set, false, nullptr);
        set->save(nullptr);
    }
    ~Database() { std::filesystem::remove_all(dir); }
};

Database& database() {
    static Database db;
    return db;
}

// Both in each iteration, so that the ratio compares like with like.
void BM_GetSubDB_RightVsWrong(benchmark::State& state) {
    using Clock = std::chrono::steady_clock;
    auto& db = database();
    double right = 0, wrong = 0;
    for (auto _ : state) {
        auto t0 = Clock::now();
        auto set = db.master->getSubDBWithPassword("right password", nullptr);
        auto t1 = Clock::now();
        auto none = db.master->getSubDBWithPassword("wrong password", nullptr);
        auto t2 = Clock::now();
        if (!set || none) state.SkipWithError("lookup gave the wrong answer");
        db.master->returnSubDB(set);
        right += std::chrono::duration<double>(t1 - t0).count();
        wrong += std::chrono::duration<double>(t2 - t1).count();
    }
    state.counters["right_s"] = right / static_cast<double>(state.iterations());
    state.counters["wrong_s"] = wrong / static_cast<double>(state.iterations());
    state.counters["right_over_wrong"] = wrong > 0 ? right / wrong : 0;
}

} // namespace

BENCHMARK(BM_GetSubDB_RightVsWrong)->Unit(benchmark::kMillisecond)->Iterations(3);
