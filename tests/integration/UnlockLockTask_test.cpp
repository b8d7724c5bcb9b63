// Unlocking and locking folders through their tasks on the task queue, with
// real images and mounts: the round trip, folders already in the state asked
// for, a missing image, and a volume in use.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "disk/DiskMaster.h"
#include "integration/FolderTaskTestSupport.h"
#include "toolkit/LogCapture.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

using UnlockLockTask = FolderTaskTest;

TEST_F(UnlockLockTask, AFolderUnlocksAndLocksThroughItsTasks) {
    addFolder("Tax Papers of 2024");
    show();
    const FolderFaceRef f{face("Tax Papers of 2024")};
    const std::string path = folderPath("Tax Papers of 2024");
    LogCapture log;

    ASSERT_FALSE(unlock("Tax Papers of 2024"));
    EXPECT_TRUE(mounted("Tax Papers of 2024"));
    EXPECT_FALSE(f.locked().toBool());
    EXPECT_FALSE(f.currentOp()) << "the folder is let go";
    EXPECT_NE(f.statusText().toString().find(" used"), std::string::npos) << "the row at rest";
    EXPECT_EQ(volnameAtURL(path).value_or(""), "Tax Papers of 20") << "was \"Vol\"; cut to the 16 bytes of a label";
    std::ofstream(path + "/return.txt") << "owed: nothing";

    ASSERT_FALSE(lock("Tax Papers of 2024"));
    EXPECT_TRUE(!mounted("Tax Papers of 2024") && f.locked().toBool() && fs::is_empty(path));

    // Locked already: nothing to unmount. Unlocked already: nothing mounted twice.
    EXPECT_FALSE(lock("Tax Papers of 2024"));
    EXPECT_FALSE(unlock("Tax Papers of 2024"));
    EXPECT_FALSE(unlock("Tax Papers of 2024"));
    EXPECT_EQ(readFile(path + "/return.txt"), "owed: nothing");
    const auto table = mountTable();
    EXPECT_EQ(std::count_if(table.begin(), table.end(), [&](const MountEntry& e) { return e.mountPoint == path; }), 1);
    EXPECT_FALSE(lock("Tax Papers of 2024"));

    const std::string u = "Unlocked 'Tax Papers of 2024'.", l = "Locked 'Tax Papers of 2024'.";
    EXPECT_EQ(notifications.texts(0), (std::vector<std::string>{u, l, l, u, u, l}));
    EXPECT_EQ(notifications.shown().size(), 6u) << "no alerts";
    std::lock_guard<std::mutex> guard(log.mutex);
    EXPECT_EQ(std::count(log.lines.begin(), log.lines.end(), "INFO: volume name changed: 'Vol' => 'Tax Papers of 2024'"), 1)
        << "renamed once, not at every unlock";
    for (const auto& line : log.lines) EXPECT_EQ(line.find(kImagePassword), std::string::npos) << line;
}

TEST_F(UnlockLockTask, WithoutItsImageAFolderIsNotUnlocked) {
    FolderRef{addFolder("No Info")}.setDiskinfo(Value());
    const QVRecordRef noImage = addFolder("No Image");
    fs::remove_all(DiskInfoRef{FolderRef{noImage}.diskinfo().as<QVRecord>()}.url().toURLPath());
    show();
    QVSetFaceStatusText(face("No Info"), "as it was", false);

    OperationResult result = unlock("No Info");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, QVErrorUnlockRefused);
    EXPECT_EQ(result->description, "Failed to mount disk image, error:\n\nDisk image information missing");
    EXPECT_EQ(FolderFaceRef{face("No Info")}.statusText().toString(), "as it was") << "the row isn't touched";
    EXPECT_EQ(notifications.texts(1), std::vector<std::string>{"Disk image information not found for folder 'No Info'."});

    result = unlock("No Image");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->description.rfind("Disk image for 'No Image' is not reachable", 0), 0u) << result->description;
    EXPECT_FALSE(mounted("No Image"));
    EXPECT_EQ(notifications.texts(2), std::vector<std::string>{"Failed to unlock 'No Image': " + result->description});
    EXPECT_TRUE(notifications.shown().back().sticky);
}

TEST_F(UnlockLockTask, ABusyVolumeStaysUnlockedAndItsHoldersAreNamed) {
    addFolder("In Use");
    show();
    const QVRecordRef f = face("In Use");
    const std::string path = folderPath("In Use");
    ASSERT_FALSE(unlock("In Use"));
    fs::create_directories(path + "/deep");
    children.start({"/bin/sleep", "600"}, path + "/deep");

    // One attempt, never forced: the volume stays, its holder is named, the time is noted.
    ASSERT_TRUE(lock("In Use"));
    EXPECT_TRUE(mounted("In Use") && !FolderFaceRef{f}.locked().toBool());
    EXPECT_FALSE(FolderFaceRef{f}.lockErrorDate().isNull());
    EXPECT_EQ(notifications.texts(1),
              std::vector<std::string>{"Failed to lock 'In Use': Application sleep prevented In Use from locking.\n\n"
                                       "Please quit it and/or close any open documents."});
    EXPECT_TRUE(notifications.shown().back().sticky);

    // Every holder once.
    children.start({"/bin/bash", "-c", "sleep 600; :"}, path);
    const std::string headline = "The folder 'In Use' could not be locked because it is being used by:\n\n";
    auto busy = [&] { return offMainThread([&] { return LockFolderTask::busyErrorMessageWithURL(path); }); };
    std::string message;
    ASSERT_TRUE(eventually([&] { return (message = busy()).find("bash") != std::string::npos; })) << message;
    EXPECT_TRUE(message == headline + "• sleep\n• bash\n" || message == headline + "• bash\n• sleep\n") << message;

    // Forcing is for other callers; then nobody holds it, and the headline stands alone.
    QVError error;
    EXPECT_TRUE(offMainThread([&] { return DiskMaster::unmountDiskForFolderFace(f, "", true, false, &error); }));
    children.stopAll();
    EXPECT_EQ(busy(), headline);
    // The next lock that succeeds clears the time of the failure.
    EXPECT_TRUE(processEventsUntil([&] { return processesUsing(imageOf(f)).empty(); }, 30000));
    ASSERT_FALSE(unlock("In Use"));
    EXPECT_FALSE(lock("In Use"));
    EXPECT_TRUE(FolderFaceRef{f}.lockErrorDate().isNull());
}
