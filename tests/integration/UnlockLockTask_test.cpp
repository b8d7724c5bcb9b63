// Unlocking and locking folders through their tasks on the task queue, with
// real images and mounts: the round trip and its messages, a folder renamed
// while locked, folders already in the state asked for, a missing image, and a
// volume that is in use.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "disk/DiskMaster.h"
#include "integration/FolderTaskTestSupport.h"
#include "tasks/LockFolderTask.h"
#include "tasks/UnlockFolderTask.h"
#include "toolkit/Log.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

class UnlockLockTask : public FolderTaskTest {
protected:
    OperationResult unlock(const std::string& name, bool open = false) {
        return run(UnlockFolderTask::taskWithFolderFace(face(name), open));
    }
    OperationResult lock(const std::string& name) { return run(LockFolderTask::taskWithFolderFace(face(name))); }
    static void writeText(const std::string& path, const std::string& text) { std::ofstream(path) << text; }
};

} // namespace

TEST_F(UnlockLockTask, AFolderUnlocksAndLocksThroughItsTasks) {
    addFolder("Tax Papers");
    show();
    const QVRecordRef f = face("Tax Papers");
    const std::string path = folderPath("Tax Papers");
    std::vector<std::string> log;
    std::mutex logMutex;
    QVLogSetSink([&](const std::string& line) {
        std::lock_guard lock(logMutex);
        log.push_back(line);
    });

    OperationResult result = unlock("Tax Papers");
    ASSERT_FALSE(result) << result->description;
    EXPECT_TRUE(mounted("Tax Papers"));
    EXPECT_FALSE(FolderFaceRef{f}.locked().toBool());
    EXPECT_FALSE(FolderFaceRef{f}.currentOp().as<Operation>()) << "the folder is let go";
    EXPECT_FALSE(FolderFaceRef{f}.progressAnimate().toBool());
    EXPECT_NE(FolderFaceRef{f}.statusText().toString().find(" used"), std::string::npos) << "the row at rest";
    // The image was made with the label "Vol": the volume takes the folder's name.
    EXPECT_EQ(volnameAtURL(path).value_or(""), "Tax Papers");
    writeText(path + "/return.txt", "owed: nothing");

    result = lock("Tax Papers");
    ASSERT_FALSE(result) << result->description;
    EXPECT_FALSE(mounted("Tax Papers"));
    EXPECT_TRUE(FolderFaceRef{f}.locked().toBool());
    EXPECT_TRUE(fs::is_empty(path));
    EXPECT_TRUE(FolderFaceRef{f}.lockErrorDate().isNull());

    // Locked already: nothing to unmount, and still told so. Unlocked already:
    // nothing mounted twice.
    EXPECT_FALSE(lock("Tax Papers"));
    EXPECT_FALSE(unlock("Tax Papers"));
    EXPECT_FALSE(unlock("Tax Papers"));
    EXPECT_EQ(readFile(path + "/return.txt"), "owed: nothing");
    const auto table = mountTable();
    EXPECT_EQ(std::count_if(table.begin(), table.end(), [&](const MountEntry& e) { return e.mountPoint == path; }), 1);
    EXPECT_FALSE(lock("Tax Papers"));
    QVLogSetSink(nullptr);

    EXPECT_EQ(notifications.texts(0),
              (std::vector<std::string>{"Unlocked 'Tax Papers'.", "Locked 'Tax Papers'.", "Locked 'Tax Papers'.",
                                        "Unlocked 'Tax Papers'.", "Unlocked 'Tax Papers'.", "Locked 'Tax Papers'."}));
    EXPECT_TRUE(notifications.texts(1).empty());
    EXPECT_TRUE(notifications.texts(2).empty());
    const auto renamed = std::count(log.begin(), log.end(), "INFO: volume name changed: 'Vol' => 'Tax Papers'");
    EXPECT_EQ(renamed, 1) << "renamed once, not at every unlock";
    for (const auto& line : log) EXPECT_EQ(line.find(kImagePassword), std::string::npos) << line;
}

TEST_F(UnlockLockTask, AFolderWithoutImageInformationOrImageIsNotUnlocked) {
    const QVRecordRef noInfo = addFolder("No Info");
    FolderRef{noInfo}.setDiskinfo(Value());
    const QVRecordRef noImage = addFolder("No Image");
    fs::remove_all(DiskInfoRef{FolderRef{noImage}.diskinfo().as<QVRecord>()}.url().toURLPath());
    show();
    FolderList::singleton().setStatusText("as it was", false, face("No Info"));

    OperationResult result = unlock("No Info");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, QVErrorUnlockRefused);
    EXPECT_EQ(result->description, "Failed to mount disk image, error:\n\nDisk image information missing");
    EXPECT_EQ(FolderFaceRef{face("No Info")}.statusText().toString(), "as it was") << "the row isn't touched";

    result = unlock("No Image");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, ENOENT) << "the sanity check's error stands";
    EXPECT_EQ(result->description.rfind("Disk image for 'No Image' is not reachable", 0), 0u) << result->description;
    EXPECT_FALSE(mounted("No Image"));
    EXPECT_EQ(notifications.texts(1), std::vector<std::string>{"Disk image information not found for folder 'No Info'."});
    ASSERT_EQ(notifications.texts(2).size(), 1u);
    EXPECT_EQ(notifications.texts(2)[0], "Failed to unlock 'No Image': " + result->description);
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

    // One attempt, not forced: the volume stays, and the holder is named.
    OperationResult result = lock("In Use");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, QVErrorFailed);
    EXPECT_TRUE(mounted("In Use"));
    EXPECT_FALSE(FolderFaceRef{f}.locked().toBool());
    EXPECT_FALSE(FolderFaceRef{f}.lockErrorDate().isNull());
    const auto alerts = notifications.texts(1);
    ASSERT_EQ(alerts.size(), 1u);
    EXPECT_EQ(alerts[0], "Failed to lock 'In Use': Application sleep prevented In Use from locking.\n\nPlease quit it "
                         "and/or close any open documents.");
    EXPECT_TRUE(notifications.shown().back().sticky);

    // The list of every holder, each once; a shell shows as the terminal it runs in.
    children.start({"/bin/sleep", "600"}, path);
    children.start({"/bin/bash", "-c", "sleep 600; :"}, path);
    std::string message;
    ASSERT_TRUE(eventually([&] {
        message = offMainThread([&] { return LockFolderTask::busyErrorMessageWithURL(path); });
        return message.find("bash") != std::string::npos;
    })) << message;
    const std::string headline = "The folder 'In Use' could not be locked because it is being used by:\n\n";
    ASSERT_EQ(message.rfind(headline, 0), 0u) << message;
    const std::string list = message.substr(headline.size());
    EXPECT_TRUE(list == "• sleep\n• bash\n" || list == "• bash\n• sleep\n") << list;

    const std::string terminal = apps.sleeper("qv-test-term");
    apps.writeApplication("qvterm.desktop", "Test Terminal", terminal + " 600", "Categories=System;TerminalEmulator;\n");
    children.start({terminal, "600"});
    message = offMainThread([&] { return LockFolderTask::busyErrorMessageWithURL(path); });
    EXPECT_NE(message.find("• Test Terminal\n"), std::string::npos) << message;
    EXPECT_EQ(message.find("• bash\n"), std::string::npos) << message;

    // Forcing is for other callers: the volume goes whoever holds it.
    QVError error;
    EXPECT_TRUE(offMainThread([&] { return DiskMaster::unmountDiskForFolderFace(f, "", true, false, &error); }))
        << error.description;
    EXPECT_FALSE(mounted("In Use"));
    children.stopAll();
    EXPECT_EQ(offMainThread([&] { return LockFolderTask::busyErrorMessageWithURL(path); }),
              "The folder 'In Use' could not be locked because it is being used by:\n\n")
        << "nobody holds it: the headline alone";

    // The next lock that succeeds clears the time of the failure.
    EXPECT_TRUE(processEventsUntil([&] { return processesUsing(imageOf(f)).empty(); }, 30000));
    ASSERT_FALSE(unlock("In Use"));
    EXPECT_FALSE(lock("In Use"));
    EXPECT_TRUE(FolderFaceRef{f}.lockErrorDate().isNull());
}
