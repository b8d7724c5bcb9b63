// A real image moved and copied between places with the face's progress and
// cancel: what arrives still opens with its password, and a cancelled move
// across file systems keeps its source.
#include <gtest/gtest.h>

#include <sys/mount.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "disk/CopyEngine.h"
#include "disk/DiskMaster.h"
#include "integration/DiskMasterTestSupport.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

class DiskMasterRescue : public DiskMasterTest {
protected:
    QVRecordRef imagedFace(const std::string& name) {
        QVRecordRef face = makeFace(sandbox.path("folders/" + name));
        FolderRef{folderOf(face)}.setEncrypted(Value(true));
        createImageFor(face);
        return face;
    }
    bool check(const std::string& image, const std::string& password) {
        return offMainThread([&] { return DiskMaster::checkPasswordDiskImage(image, password); });
    }
    bool move(const QVRecordRef& face, const std::string& to, QVError* error) {
        return offMainThread([&] { return DiskMaster::moveImageFileForFolderFace(face, to, error); });
    }
    bool copy(const QVRecordRef& face, const std::string& to, QVError* error) {
        return offMainThread([&] { return DiskMaster::copyImageFileForFolderFace(face, to, error); });
    }
    // A directory on a file system of its own, taken down with the sandbox.
    std::string otherFileSystem() {
        const std::string dir = sandbox.makeDir("other");
        EXPECT_EQ(::mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=256m"), 0) << std::strerror(errno);
        return dir;
    }
};

} // namespace

TEST_F(DiskMasterRescue, MovedAndCopiedImagesStillOpenAndTheRecordIsLeftToTheCaller) {
    QVRecordRef face = imagedFace("Moved");
    const std::string image = imageOf(face);
    EXPECT_FALSE(check(image, std::string(kImagePassword) + "\n")) << "no terminator is added or ignored";
    EXPECT_FALSE(check(sandbox.path("no-such.sparsebundle"), kImagePassword));

    const std::string copied = sandbox.makeDir("copies") + "/Copy.sparsebundle";
    QVError error;
    ASSERT_TRUE(copy(face, copied, &error)) << error.description;
    EXPECT_TRUE(check(copied, kImagePassword) && check(image, kImagePassword)) << "a copy keeps its source";

    const std::string moved = otherFileSystem() + "/Moved.sparsebundle";
    ASSERT_TRUE(move(face, moved, &error)) << error.description;
    EXPECT_TRUE(!fs::exists(image) && check(moved, kImagePassword));
    EXPECT_EQ(imageOf(face), image) << "the caller points the record at the new place";

    // Gone from its place: the sanity check stops a second move, naming the image.
    EXPECT_FALSE(move(face, sandbox.path("again.sparsebundle"), &error));
    EXPECT_EQ(error.code, 2002);
    EXPECT_EQ(error.description.rfind("Error checking image file for '" + image + "' :\n\n", 0), 0u)
        << error.description;
}

TEST_F(DiskMasterRescue, ACancelledMoveAcrossFileSystemsKeepsTheSource) {
    QVRecordRef face = imagedFace("Cancelled");
    const std::string image = imageOf(face);
    FolderFaceRef{face}.setOpCanceled(Value(true));
    const std::string other = otherFileSystem();
    // Status calls at once, so that the cancel is heard before a small image is through.
    QVCopySetStatusInterval(std::chrono::milliseconds(0));
    QVError error;
    EXPECT_FALSE(move(face, other + "/Moved.sparsebundle", &error));
    EXPECT_EQ(error.code, QVErrorCancelled);
    EXPECT_EQ(error.description, "Operation cancelled");
    EXPECT_TRUE(check(image, kImagePassword)) << "the source is whole";

    EXPECT_FALSE(copy(face, sandbox.makeDir("copies") + "/Copy.sparsebundle", &error));
    EXPECT_EQ(error.code, QVErrorCancelled);
    QVCopySetStatusInterval(std::chrono::milliseconds(1000));
}
