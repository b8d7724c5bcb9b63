// Mounting a folder's image on the folder's own path with the real helper and
// real mounts, beyond the round trip, busy volumes and renaming the task tests
// run: a failed mount, and the alternative mount over a served disk.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "disk/DiskMaster.h"
#include "disk/FileSystemVolumes.h"
#include "integration/DiskMasterTestSupport.h"
#include "toolkit/LogCapture.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

class DiskMasterMount : public DiskMasterTest {
protected:
    bool mount(const QVRecordRef& face, QVError* error) {
        return offMainThread([&] { return DiskMaster::mountDiskForFolderFace(face, false, "", true, error); });
    }
    bool unmount(const QVRecordRef& face, QVError* error) {
        return offMainThread([&] { return DiskMaster::unmountDiskForFolderFace(face, "", false, true, error); });
    }
    QVRecordRef imagedFace(const std::string& name) {
        QVRecordRef face = makeFace(sandbox.path("folders/" + name));
        createImageFor(face);
        return face;
    }
    static std::string pathOf(const QVRecordRef& face) { return FolderRef{folderOf(face)}.mountpoint().toURLPath(); }
};

} // namespace

TEST_F(DiskMasterMount, AFailedMountLeavesLockedAndThePathAsTheyWereAndLogsNoPassword) {
    LogCapture log;
    QVRecordRef face = makeFace(sandbox.path("folders/Wrong"), "not the image's password");
    createImageFor(face);
    QVError error;
    EXPECT_FALSE(mount(face, &error));
    EXPECT_EQ(error.code, QVImageExitWrongPassword);
    EXPECT_EQ(error.description.rfind("Failed to mount disk image, error:\nqv-image: ", 0), 0u) << error.description;
    EXPECT_TRUE(locked(face) && !isVolumeAtURL(pathOf(face), nullptr));

    // A password that doesn't open under the set's password never reaches the helper.
    FolderRef{folderOf(face)}.setPassword(Value(Bytes{1, 2, 3}));
    EXPECT_FALSE(mount(face, &error));
    EXPECT_EQ(error.code, QVErrorPasswordWrap);

    // A folder with files in it is refused as a mount point, and keeps them.
    QVRecordRef full = imagedFace("Full");
    std::ofstream(pathOf(full) + "/mine.txt") << "still here";
    EXPECT_FALSE(mount(full, &error));
    EXPECT_TRUE(locked(full) && !isVolumeAtURL(pathOf(full), nullptr));
    EXPECT_EQ(readFile(pathOf(full) + "/mine.txt"), "still here");
    EXPECT_FALSE(log.has(kImagePassword) || log.has("not the image's password"));
}

TEST_F(DiskMasterMount, TheAlternativeMountServesTheDiskAndMountsItHere) {
    QVRecordRef face = imagedFace("Alternative");
    const std::string path = pathOf(face);
    QVError error;
    ASSERT_TRUE(offMainThread([&] { return DiskMaster::daMountDiskForFolderFace(face, false, "", true, &error); }))
        << error.description;
    EXPECT_FALSE(locked(face));
    ASSERT_TRUE(isVolumeAtURL(path, nullptr));
    std::ofstream(path + "/note.txt") << "through the served disk";

    // The same unmount takes it down, refusing while it is in use.
    const pid_t holder = startHolder({"/bin/sleep", "600"}, path);
    EXPECT_FALSE(unmount(face, &error));
    EXPECT_EQ(error.description, "Application sleep prevented Alternative from locking.\n\n"
                                 "Please quit it and/or close any open documents.");
    stopChild(holder);
    ASSERT_TRUE(unmount(face, &error)) << error.description;
    EXPECT_TRUE(locked(face) && fs::is_empty(path));

    // Nothing mounted there any more: the helper refuses, in the volume domain;
    // a path that isn't there is an error of its own.
    EXPECT_FALSE(unmount(face, &error));
    EXPECT_EQ(error.domain, QVVolumeErrorDomain);
    EXPECT_FALSE(offMainThread(
        [&] { return DiskMaster::unmountDiskForFolderFace(face, sandbox.path("nowhere"), false, false, &error); }));
    EXPECT_EQ(error.code, ENOENT);

    // The disk was let go: the image attaches normally and kept the file.
    ASSERT_TRUE(processEventsUntil([&] { return processesUsing(sandbox.runtimeDir()).empty(); }, 20000))
        << "the served disk is still running";
    ASSERT_TRUE(mount(face, &error)) << error.description;
    EXPECT_EQ(readFile(path + "/note.txt"), "through the served disk");
    ASSERT_TRUE(unmount(face, &error)) << error.description;

    // A mount point that is not empty is refused before anything is decrypted.
    std::ofstream(path + "/in the way") << "";
    EXPECT_FALSE(offMainThread([&] { return DiskMaster::daMountDiskForFolderFace(face, false, "", false, &error); }));
    EXPECT_NE(error.description.find("is not empty"), std::string::npos) << error.description;
    EXPECT_TRUE(processesUsing(sandbox.runtimeDir()).empty()) << "nothing served";
}
