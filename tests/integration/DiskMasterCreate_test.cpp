// Creating a folder's image with the real helper: the image holds exactly the
// folder's tree, records its settings beside it and is detached at the end; a
// creation that can't or mustn't finish leaves the storage and the path as
// they were.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "disk/DiskInfoFile.h"
#include "disk/DiskMaster.h"
#include "disk/FileSystemVolumes.h"
#include "disk/FolderSanity.h"
#include "disk/TreeCompare.h"
#include "integration/DiskMasterTestSupport.h"
#include "toolkit/HumanReadable.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

void writeText(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

class DiskMasterCreate : public DiskMasterTest {
protected:
    bool create(const QVRecordRef& face, unsigned options, QVError* error) {
        return offMainThread([&] { return DiskMaster::createDiskForFolderFace(face, 0, options, nullptr, error); });
    }
    // What the storage holds besides the Temp directory, and what Temp holds.
    std::vector<std::string> storageLeftovers() {
        std::vector<std::string> left;
        for (const auto& name : listDirectory(storageDir()))
            if (name != "Temp") left.push_back(name);
        for (const auto& name : listDirectory(tempDir())) left.push_back("Temp/" + name);
        return left;
    }
};

} // namespace

TEST_F(DiskMasterCreate, TheImageHoldsTheFolderExactlyAndIsDetachedAtTheEnd) {
    const std::string folder = sandbox.makeDir("folders/Odd Names");
    fs::create_directories(folder + "/sub dir/empty");
    writeText(folder + "/with\nnewline and latin1-\xe9\xff", "nl");
    writeText(folder + "/sub dir/.dotfile", std::string(70000, 'x'));
    fs::create_hard_link(folder + "/sub dir/.dotfile", folder + "/hard link");
    fs::create_symlink("../hard link", folder + "/sub dir/relative link");
    fs::create_symlink("/nowhere/at/all", folder + "/dangling");
    ASSERT_EQ(::setxattr((folder + "/sub dir/.dotfile").c_str(), "user.colour", "teal", 4, 0), 0);
    ASSERT_EQ(::setxattr((folder + "/sub dir").c_str(), "user.note", "", 0, 0), 0);
    fs::permissions(folder + "/sub dir/.dotfile", fs::perms::owner_read);

    QVRecordRef face = makeFace(folder);
    QVError error;
    ASSERT_TRUE(create(face, DiskCreateUpdateUI, &error)) << error.description;
    processEventsFor(50);

    const std::string image = imageOf(face);
    EXPECT_EQ(storageLeftovers(), std::vector<std::string>{fs::path(image).filename().string()})
        << "the image alone: no temporary mount point";
    EXPECT_TRUE(locked(face)) << "mounted and taken down again";
    EXPECT_EQ(FolderRef{folderOf(face)}.mountpoint().toURLPath(), folder) << "the folder stays where it is";

    // Defaults were filled in and recorded beside the image, which is named after the folder.
    DictRef info = QVDiskInfoRead(image, &error);
    ASSERT_TRUE(info) << error.description;
    EXPECT_TRUE(QVDictGet(*info, "encryption").toString() == "AES-256" &&
                QVDictGet(*info, "filesystem").toString() == "HFS+J");
    EXPECT_EQ(QVDictGet(*info, "password").toData(), FolderRef{folderOf(face)}.password().toData());
    CommandResult imageinfo = sandbox.qvImage({"imageinfo", image, "-plist", "-stdinpass"}, std::string(kImagePassword));
    auto plist = parsePropertyList(imageinfo.out);
    ASSERT_TRUE(plist) << imageinfo.describe();
    EXPECT_EQ(dictGet(*plist, "size").value_or(Value()).toInt(), 10737418240) << "ten GiB for a small folder";
    EXPECT_EQ(labelOf(image), "Odd Names");

    // The image opens with the password the folder keeps, and holds the tree.
    const std::string check = sandbox.makeDir("check");
    CommandResult attach = sandbox.attach(image, check, kImagePassword);
    ASSERT_EQ(attach.exitCode, 0) << attach.describe();
    std::vector<std::string> diffs;
    for (const auto& d : compareTrees(folder, check, {.wholeSeconds = true}))
        if (d.rfind("'lost+found'", 0) != 0 && d.rfind("'.hidden'", 0) != 0) diffs.push_back(d);
    EXPECT_EQ(diffs, std::vector<std::string>{});
    EXPECT_EQ(sandbox.detach(check).exitCode, 0);
}

TEST_F(DiskMasterCreate, KeptMountedAnEmptyImageBelongsToTheCallerAndReplacesAnOldOne) {
    const std::string folder = sandbox.makeDir("folders/Decoy");
    writeText(folder + "/not copied", "x");
    QVRecordRef face = makeFace(folder);
    createImageFor(face, "Previous");

    QVError error;
    ASSERT_TRUE(create(face, DiskCreateKeepMounted | DiskCreateSkipCopy | DiskCreateSkipSpotlight, &error))
        << error.description;
    const std::string tempMount = FolderRef{folderOf(face)}.mountpoint().toURLPath();
    EXPECT_EQ(fs::path(tempMount).parent_path(), fs::path(tempDir())) << "the temporary mount point is now the folder's";
    ASSERT_TRUE(isVolumeAtURL(tempMount, nullptr));
    EXPECT_FALSE(locked(face));
    EXPECT_EQ(listDirectory(tempMount), (std::vector<std::string>{".hidden", "lost+found"})) << "nothing copied";
    EXPECT_TRUE(QVDiskInfoRead(imageOf(face), nullptr)) << "diskinfo is written also for an empty image";

    ASSERT_TRUE(offMainThread([&] { return DiskMaster::unmountDiskForFolderFace(face, "", true, false, &error); }))
        << error.description;
    EXPECT_TRUE(locked(face));
    EXPECT_EQ(labelOf(imageOf(face)), "Decoy") << "the old image at the path was replaced";
}

TEST_F(DiskMasterCreate, TooLittleRoomRefusesBeforeAnythingIsMade) {
    // The storage on a volume of its own, too small for any folder plus the margin.
    // The sandbox's teardown takes the tmpfs down with everything else.
    ASSERT_EQ(::mount("tmpfs", storageDir().c_str(), "tmpfs", 0, "size=64m,mode=0700"), 0) << std::strerror(errno);
    const std::string folder = sandbox.makeDir("folders/Big Enough");
    writeText(folder + "/data", std::string(1 << 20, 'd'));
    QVRecordRef face = makeFace(folder);
    const int64_t available = QVStorageAvailableBytes(storage);
    ASSERT_GT(available, 0);

    QVError error;
    EXPECT_FALSE(create(face, 0, &error));
    EXPECT_EQ(error.domain, QVAppErrorDomain());
    EXPECT_EQ(error.code, QVErrorRefused);
    const uint64_t size = FolderRef{folderOf(face)}.folderSize().isNull()
                              ? folderSizeOfFolderFace(face, false, nullptr)
                              : uint64_t(FolderRef{folderOf(face)}.folderSize().toInt());
    EXPECT_EQ(error.description, "Not enough space available. Please free at least " +
                                     bytesToHumanReadableString(size + 104857600 - uint64_t(available)) + ".");
    EXPECT_EQ(listDirectory(storageDir()), std::vector<std::string>{}) << "nothing left in the storage";
    EXPECT_EQ(readFile(folder + "/data").size(), size_t(1 << 20)) << "the folder untouched";
}

TEST_F(DiskMasterCreate, AFailedCreateLeavesWhatWasAtThePath) {
    QVRecordRef face = makeFace(sandbox.path("folders/Guarded"));
    // Something that is not an image sits where the image would go.
    const std::string image = imageOf(face);
    fs::create_directories(image);
    writeText(image + "/precious", "do not delete");

    QVError error;
    EXPECT_FALSE(create(face, 0, &error));
    EXPECT_EQ(error.code, 1) << error.description;
    EXPECT_EQ(error.description.rfind("Failed to create disk image, error:\n\nqv-image: ", 0), 0u) << error.description;
    EXPECT_EQ(readFile(image + "/precious"), "do not delete");
    EXPECT_TRUE(storageLeftovers() == std::vector<std::string>{fs::path(image).filename().string()});
}
