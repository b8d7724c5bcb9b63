// Mounting a folder's image on the folder's own path and taking it away, with
// the real helper and real mounts: the state of the path and of the face's
// `locked`, a wrong password, a busy volume and its holder, force, renaming,
// and the alternative mount over a served disk.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "disk/DiskMaster.h"
#include "disk/FileSystemVolumes.h"
#include "integration/DiskMasterTestSupport.h"
#include "toolkit/Log.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

class DiskMasterMount : public DiskMasterTest {
protected:
    bool mount(const QVRecordRef& face, QVError* error, bool silently = false, bool updateUI = true) {
        return offMainThread([&] { return DiskMaster::mountDiskForFolderFace(face, silently, "", updateUI, error); });
    }
    bool unmount(const QVRecordRef& face, bool force, QVError* error) {
        return offMainThread([&] { return DiskMaster::unmountDiskForFolderFace(face, "", force, true, error); });
    }
    static std::string pathOf(const QVRecordRef& face) { return FolderRef{folderOf(face)}.mountpoint().toURLPath(); }
    static void writeText(const std::string& path, const std::string& text) {
        std::ofstream out(path);
        out << text;
    }
};

} // namespace

TEST_F(DiskMasterMount, MountsOnTheFoldersOwnPathAndTakesItAwayAgain) {
    QVRecordRef face = makeFace(sandbox.path("folders/Tax Papers"));
    createImageFor(face);
    const std::string path = pathOf(face);

    QVError error;
    ASSERT_TRUE(mount(face, &error)) << error.description;
    EXPECT_FALSE(locked(face)) << "changed on the main thread before the call came back";
    EXPECT_TRUE(isVolumeAtURL(path, nullptr));
    EXPECT_EQ(FolderFaceRef{face}.statusText().toString(), "Mounting disk image...");
    writeText(path + "/return.txt", "owed: nothing");

    ASSERT_TRUE(unmount(face, false, &error)) << error.description;
    EXPECT_TRUE(locked(face));
    EXPECT_FALSE(isVolumeAtURL(path, nullptr));
    EXPECT_TRUE(fs::is_empty(path)) << "a locked folder is an empty directory";
    EXPECT_EQ(FolderFaceRef{face}.statusText().toString(), "Locking folder...");

    // The contents were in the image all along, and come back with it; a
    // silent mount is the same mount.
    ASSERT_TRUE(mount(face, &error, true, false)) << error.description;
    EXPECT_EQ(readFile(path + "/return.txt"), "owed: nothing");
    ASSERT_TRUE(unmount(face, false, &error)) << error.description;
}

TEST_F(DiskMasterMount, AFailedMountLeavesLockedAndThePathAsTheyWere) {
    QVRecordRef face = makeFace(sandbox.path("folders/Wrong"), "not the image's password");
    createImageFor(face);
    const std::string path = pathOf(face);
    std::vector<std::string> lines;
    QVLogSetSink([&](const std::string& line) { lines.push_back(line); });

    QVError error;
    EXPECT_FALSE(mount(face, &error));
    EXPECT_EQ(error.code, QVImageExitWrongPassword);
    EXPECT_EQ(error.description.rfind("Failed to mount disk image, error:\nqv-image: ", 0), 0u) << error.description;
    EXPECT_TRUE(locked(face));
    EXPECT_FALSE(isVolumeAtURL(path, nullptr));

    // A password that doesn't open under the set's password never reaches the helper.
    FolderRef{folderOf(face)}.setPassword(Value(Bytes{1, 2, 3}));
    error = QVError();
    EXPECT_FALSE(mount(face, &error));
    EXPECT_EQ(error.code, QVErrorPasswordWrap);

    // A folder with files in it is refused as a mount point, and keeps them.
    QVRecordRef full = makeFace(sandbox.path("folders/Full"));
    createImageFor(full);
    writeText(pathOf(full) + "/mine.txt", "still here");
    error = QVError();
    EXPECT_FALSE(mount(full, &error));
    EXPECT_TRUE(locked(full));
    EXPECT_FALSE(isVolumeAtURL(pathOf(full), nullptr));
    EXPECT_EQ(readFile(pathOf(full) + "/mine.txt"), "still here");
    QVLogSetSink(nullptr);

    for (const auto& line : lines) {
        EXPECT_EQ(line.find(kImagePassword), std::string::npos) << "a password in the log: " << line;
        EXPECT_EQ(line.find("not the image's password"), std::string::npos) << "a password in the log: " << line;
    }
    EXPECT_NE(std::find_if(lines.begin(), lines.end(),
                           [&](const std::string& l) { return l.find("failed to attach " + imageOf(face)) != std::string::npos; }),
              lines.end());
}

TEST_F(DiskMasterMount, ABusyVolumeNamesItsHolderAndForceTakesItAnyway) {
    QVRecordRef face = makeFace(sandbox.path("folders/In Use"));
    createImageFor(face);
    const std::string path = pathOf(face);
    QVError error;
    ASSERT_TRUE(mount(face, &error)) << error.description;
    fs::create_directories(path + "/deep/down");
    const pid_t holder = startHolder({"/bin/sleep", "600"}, path + "/deep/down");

    error = QVError();
    EXPECT_FALSE(unmount(face, false, &error));
    EXPECT_EQ(error.domain, QVAppErrorDomain());
    EXPECT_EQ(error.code, QVErrorFailed);
    EXPECT_EQ(error.description,
              "Application sleep prevented In Use from locking.\n\nPlease quit it and/or close any open documents.");
    EXPECT_FALSE(locked(face)) << "a refused unmount changes nothing";
    EXPECT_TRUE(isVolumeAtURL(path, nullptr));

    error = QVError();
    EXPECT_TRUE(unmount(face, true, &error)) << error.description;
    EXPECT_TRUE(locked(face));
    EXPECT_FALSE(isVolumeAtURL(path, nullptr));
    stopChild(holder);
    // The forced volume was cut loose from the path at once; its image is let go
    // when its last user ends.
    EXPECT_TRUE(processEventsUntil([&] { return processesUsing(imageOf(face)).empty(); }, 30000));

    // Nothing mounted there any more: the helper refuses and says so, in the
    // volume domain; a path that isn't there is an error of its own.
    error = QVError();
    EXPECT_FALSE(unmount(face, false, &error));
    EXPECT_EQ(error.domain, QVVolumeErrorDomain);
    EXPECT_EQ(error.code, 1);
    EXPECT_TRUE(locked(face));
    error = QVError();
    EXPECT_FALSE(offMainThread(
        [&] { return DiskMaster::unmountDiskForFolderFace(face, sandbox.path("nowhere"), false, false, &error); }));
    EXPECT_EQ(error.code, ENOENT);
}

TEST_F(DiskMasterMount, RenamingGivesTheMountedVolumeANewLabelAndKeepsItMounted) {
    QVRecordRef face = makeFace(sandbox.path("folders/Renamed Folder"));
    createImageFor(face, "Old Name");
    const std::string path = pathOf(face);
    QVError error;
    EXPECT_FALSE(DiskMaster::renameDiskForFolderFace(face, "Renamed Folder", "", false, &error));
    EXPECT_EQ(error.code, QVErrorRefused) << "not a volume";
    EXPECT_EQ(error.description, "This shouldn't happen! Asked to rename a volume that is not a volume!");

    ASSERT_TRUE(mount(face, &error, true)) << error.description;
    writeText(path + "/kept.txt", "kept");
    error = QVError();
    ASSERT_TRUE(offMainThread([&] {
        return DiskMaster::renameDiskForFolderFace(face, "Renamed Folder With A Long Name", "", false, &error);
    })) << error.description;
    EXPECT_TRUE(isVolumeAtURL(path, nullptr));
    EXPECT_FALSE(locked(face));
    EXPECT_EQ(readFile(path + "/kept.txt"), "kept");
    ASSERT_TRUE(unmount(face, false, &error)) << error.description;
    EXPECT_EQ(labelOf(imageOf(face)), "Renamed Folder W") << "cut to the 16 bytes of an ext4 label";

    // A busy volume can't be renamed and stays as it is.
    ASSERT_TRUE(mount(face, &error)) << error.description;
    const pid_t holder = startHolder({"/bin/sleep", "600"}, path);
    error = QVError();
    EXPECT_FALSE(offMainThread([&] { return DiskMaster::renameDiskForFolderFace(face, "Other", "", false, &error); }));
    EXPECT_EQ(error.code, QVImageExitBusy);
    EXPECT_TRUE(isVolumeAtURL(path, nullptr));
    stopChild(holder);
    ASSERT_TRUE(unmount(face, false, &error)) << error.description;
    EXPECT_EQ(labelOf(imageOf(face)), "Renamed Folder W");
}

TEST_F(DiskMasterMount, TheAlternativeMountServesTheDiskAndMountsItHere) {
    QVRecordRef face = makeFace(sandbox.path("folders/Alternative"));
    createImageFor(face);
    const std::string path = pathOf(face);
    QVError error;
    ASSERT_TRUE(offMainThread([&] { return DiskMaster::daMountDiskForFolderFace(face, false, "", true, &error); }))
        << error.description;
    EXPECT_FALSE(locked(face));
    ASSERT_TRUE(isVolumeAtURL(path, nullptr));
    writeText(path + "/note.txt", "through the served disk");

    // The same unmount takes it down, refusing while it is in use.
    const pid_t holder = startHolder({"/bin/sleep", "600"}, path);
    error = QVError();
    EXPECT_FALSE(unmount(face, false, &error));
    EXPECT_EQ(error.description,
              "Application sleep prevented Alternative from locking.\n\nPlease quit it and/or close any open documents.");
    stopChild(holder);
    ASSERT_TRUE(unmount(face, false, &error)) << error.description;
    EXPECT_TRUE(locked(face));
    EXPECT_FALSE(isVolumeAtURL(path, nullptr));

    // The disk was let go: the image attaches normally and kept the file.
    ASSERT_TRUE(processEventsUntil([&] { return processesUsing(sandbox.runtimeDir()).empty(); }, 20000))
        << "the served disk is still running";
    ASSERT_TRUE(mount(face, &error)) << error.description;
    EXPECT_EQ(readFile(path + "/note.txt"), "through the served disk");
    ASSERT_TRUE(unmount(face, false, &error)) << error.description;

    // A mount point that is not empty is refused before anything is decrypted.
    writeText(path + "/in the way", "");
    error = QVError();
    EXPECT_FALSE(offMainThread([&] { return DiskMaster::daMountDiskForFolderFace(face, false, "", false, &error); }));
    EXPECT_NE(error.description.find("is not empty"), std::string::npos) << error.description;
    EXPECT_TRUE(processesUsing(sandbox.runtimeDir()).empty()) << "nothing served";
}
