// The fuzz targets' harnesses, fed what the fuzzers once crashed on (kept in
// tests/fixtures/fuzz/<target>/) and their seeds: in every build, and under the
// sanitizers with the unit tests, not only in the fuzz build.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "FuzzHarnesses.h"

namespace fs = std::filesystem;

namespace {

using Harness = int (*)(const uint8_t*, size_t);

// Runs every file of the target's kept inputs and seeds; returns how many.
size_t feed(const std::string& target, Harness harness) {
    size_t fed = 0;
    for (const std::string dir : {std::string(QV_FIXTURES_DIR) + "/fuzz/" + target, QV_FUZZ_DIR "/corpus/" + target}) {
        if (!fs::is_directory(dir)) continue;
        for (const auto& entry : fs::directory_iterator(dir)) {
            std::ifstream in(entry.path(), std::ios::binary);
            const std::vector<uint8_t> input{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
            SCOPED_TRACE(entry.path().string());
            EXPECT_EQ(harness(input.data(), input.size()), 0);
            ++fed;
        }
    }
    return fed;
}

} // namespace

TEST(FuzzRegression, KeptInputsAndSeedsPassEveryHarness) {
    EXPECT_GT(feed("keyed_archive", qv::fuzz::keyedArchive), 0u);
    EXPECT_GT(feed("property_list", qv::fuzz::propertyList), 0u);
    EXPECT_GT(feed("scrypt_container", qv::fuzz::scryptContainer), 0u);
    EXPECT_GT(feed("image_token", qv::fuzz::imageToken), 0u);
}
