// Indexing markers: the library calls on a plain folder, and the qv-index
// program's answers and refusals (it only ever writes at a volume's root).
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "disk/FileSystemIndexing.h"
#include "disk/ProcessRunner.h"
#include "support/TempHome.h"

namespace {

namespace fs = std::filesystem;

TEST(Indexing, MarkersComeAndGo) {
    const std::string dir = qv::test::makeTempDir("qvindex");
    qv::QVError error;
    ASSERT_TRUE(qv::QVSetIndexingEnabled(dir, false, &error)) << error.description;
    EXPECT_TRUE(fs::exists(dir + "/.trackerignore") && fs::exists(dir + "/.nomedia"));
    // One marker alone is enough to keep indexers out.
    fs::remove(dir + "/.trackerignore");
    EXPECT_FALSE(qv::QVIndexingEnabled(dir));
    ASSERT_TRUE(qv::QVSetIndexingEnabled(dir, true, &error));
    EXPECT_TRUE(fs::is_empty(dir));
    EXPECT_FALSE(qv::QVSetIndexingEnabled(dir + "/missing", false, &error));
    fs::remove_all(dir);
}

TEST(Indexing, ProgramAnswersAndRefuses) {
    const std::string tool = QV_INDEX_TOOL;
    qv::QVError error;
    EXPECT_EQ(qv::quickCommand(tool, {"-s", "/proc"}, &error).value_or(""), "/proc:\n\tIndexing enabled.\n");

    // Not a volume's root: nothing is written into what may be a locked folder.
    const std::string dir = qv::test::makeTempDir("qvindex");
    qv::quickCommand(tool, {"-i", "off", dir}, &error);
    EXPECT_EQ(error.code, 3);
    EXPECT_NE(error.description.find("qv-index: " + dir + ": not the root of a mounted volume"), std::string::npos);
    EXPECT_TRUE(fs::is_empty(dir));
    qv::quickCommand(tool, {"-i", "maybe", "/proc"}, &error);
    EXPECT_EQ(error.code, 2) << "usage error expected";
    EXPECT_NE(error.description.find("usage: qv-index"), std::string::npos);
    // A volume we may not write to: the failure is reported, not hidden.
    qv::quickCommand(tool, {"-i", "off", "/proc"}, &error);
    EXPECT_EQ(error.code, 1);
    fs::remove_all(dir);
}

} // namespace
