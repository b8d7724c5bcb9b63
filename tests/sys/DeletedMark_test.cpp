// The " (deleted)" mark the kernel adds to the path of a file unlinked while in
// use: a loop device's backing file and the links of /proc name the file
// without it, and only the mark at the very end is taken away.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "support/TempHome.h"
#include "sys/LoopDevices.h"
#include "sys/ProcFiles.h"

namespace {

TEST(DeletedMark, LoopBackingFileTextLosesOnlyTheFinalMark) {
    EXPECT_EQ(qv::QVLoopBackingFileFromSysfs("/run/qv/att-1/dev/disk\n"), "/run/qv/att-1/dev/disk");
    EXPECT_EQ(qv::QVLoopBackingFileFromSysfs("/run/qv/att-1/dev/disk (deleted)\n"), "/run/qv/att-1/dev/disk");
    EXPECT_EQ(qv::QVLoopBackingFileFromSysfs("/img/a (deleted) b\n"), "/img/a (deleted) b");
    EXPECT_EQ(qv::QVLoopBackingFileFromSysfs("/img/x (deleted) (deleted)\n"), "/img/x (deleted)")
        << "a name that itself ends in the mark keeps it";
    EXPECT_EQ(qv::QVLoopBackingFileFromSysfs(""), "") << "a loop device without a file";
    EXPECT_EQ(qv::QVWithoutDeletedMark(" (deleted)"), " (deleted)") << "the mark alone is a name";
}

TEST(DeletedMark, AnOpenFileUnlinkedKeepsItsPathThroughProc) {
    const std::string dir = qv::test::makeTempDir("qvdeleted");
    const std::string path = dir + "/in use";
    std::ofstream(path) << "x";
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    EXPECT_EQ(qv::QVReadProcLink(link), path);
    ::unlink(path.c_str());
    EXPECT_EQ(qv::QVReadProcLink(link), path);
    ::close(fd);
    EXPECT_EQ(qv::QVReadProcLink(link), "") << "a link that is gone reads as nothing";
    std::filesystem::remove_all(dir);
}

} // namespace
