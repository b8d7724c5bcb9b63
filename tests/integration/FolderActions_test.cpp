// Folder actions around real unlocks and locks: an application that won't
// quit holds a lock back, a Lock Folder action without its folder refuses the
// lock, unlocking one folder unlocks (and locking locks) the folders its
// actions name, and an unlock waits for an application it would open.
#include <gtest/gtest.h>

#include <filesystem>

#include "automation/ActionsManager.h"
#include "disk/RunningApplications.h"
#include "integration/FolderTaskTestSupport.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

using FolderActions = FolderTaskTest;

static bool running(const std::string& id) {
    return !QVRunningApplication::runningApplicationsWithBundleIdentifier(id).empty();
}

TEST_F(FolderActions, AnApplicationThatWontQuitHoldsTheLockBack) {
    const QVRecordRef work = addFolder("Work");
    show();
    ASSERT_FALSE(unlock("Work"));
    const std::string stubborn = apps.script("qv-stubborn", "trap '' TERM\nwhile :; do sleep 0.2; done");
    const std::string entry = apps.writeApplication("stubborn.desktop", "Stubborn", stubborn);
    const pid_t pid = children.start({stubborn});
    ASSERT_TRUE(eventually([] { return running("stubborn.desktop"); }));
    setActions(work, true, {folderAction(QVActionQuit, entry, Value("stubborn.desktop"))});

    OperationResult result = lock("Work");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, QVErrorActionFailed);
    const std::string why = "Could not close the application: stubborn. In order to avoid possible data loss, "
                            "folder lock has been cancelled";
    EXPECT_EQ(result->description, why);
    EXPECT_TRUE(mounted("Work")) << "the lock was held back";
    EXPECT_FALSE(children.exited(pid)) << "asked, never forced";
    EXPECT_FALSE(FolderFaceRef{face("Work")}.lockErrorDate().isNull());
    EXPECT_EQ(notifications.texts(1),
              std::vector<std::string>{"The folder 'Work' cannot be locked, because last action failed with error:\n" + why});
    EXPECT_TRUE(notifications.shown().back().sticky);

    // A Lock Folder action whose folder has left the set, last in the list: the
    // run goes on to its end, and the task still refuses the lock.
    setActions(work, true, {folderAction(QVActionLockFolder, folderPath("Gone"))});
    result = lock("Work");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->description, "Folder not found in the database: Work");
    EXPECT_TRUE(mounted("Work"));

    // Once the application has gone, the lock goes through and the failure is forgotten.
    children.stopAll();
    setActions(work, true, {folderAction(QVActionQuit, entry, Value("stubborn.desktop"))});
    EXPECT_FALSE(lock("Work"));
    EXPECT_FALSE(mounted("Work"));
    EXPECT_TRUE(FolderFaceRef{face("Work")}.lockErrorDate().isNull());
}

TEST_F(FolderActions, UnlockingAFolderUnlocksTheFoldersItsActionsNameAndLockingLocksThem) {
    const QVRecordRef a = addFolder("Alpha");
    const QVRecordRef b = addFolder("Beta");
    addFolder("Gamma");
    show();
    const std::string marker = apps.path("beta-opened");
    const std::string probe = apps.writeApplication(
        "probe.desktop", "Probe", apps.script("qv-probe", "touch '" + marker + "'"));
    // Alpha and Beta unlock each other; Beta's own list opens the probe.
    setActions(a, false, {folderAction(QVActionUnlockFolder, folderPath("Beta"))});
    setActions(b, false, {folderAction(QVActionOpen, probe, Value("probe.desktop")),
                       folderAction(QVActionUnlockFolder, folderPath("Alpha"))});
    setActions(a, true, {folderAction(QVActionLockFolder, folderPath("Beta"))});

    OperationResult result = unlock("Alpha");
    ASSERT_FALSE(result) << result->description;
    EXPECT_TRUE(mounted("Alpha") && mounted("Beta") && !mounted("Gamma"));
    EXPECT_TRUE(eventually([&] { return fs::exists(marker); })) << "Beta's own actions ran";

    result = lock("Alpha");
    ASSERT_FALSE(result) << result->description;
    // Depth first: Beta was done before Alpha went on, both ways.
    EXPECT_FALSE(mounted("Alpha") || mounted("Beta"));
    EXPECT_EQ(notifications.texts(0), (std::vector<std::string>{"Unlocked 'Beta'.", "Unlocked 'Alpha'.",
                                                                "Locked 'Beta'.", "Locked 'Alpha'."}));
    EXPECT_TRUE(notifications.texts(1).empty());
}

TEST_F(FolderActions, AnUnlockWaitsForTheApplicationsItWouldOpenAndSurvivesAFailingAction) {
    const QVRecordRef notes = addFolder("Notes");
    show();
    const std::string viewer = apps.script("qv-viewer", "if [ \"$1\" = stay ]; then while :; do sleep 0.2; done; fi");
    const std::string entry = apps.writeApplication("viewer.desktop", "Viewer", viewer);
    setActions(notes, false, {folderAction(QVActionOpen, entry, Value("viewer.desktop"))});
    children.start({viewer, "stay"});
    ASSERT_TRUE(eventually([] { return running("viewer.desktop"); }));
    QVSetFaceStatusText(face("Notes"), "as it was", false);

    OperationResult result = unlock("Notes");
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, QVErrorUnlockRefused);
    const std::string refusal =
        "Failed to unlock folder Notes.\nThe folder cannot be unlocked while the application Viewer  is running. "
        "Please, close Viewer and try again.";
    EXPECT_EQ(result->description, refusal);
    EXPECT_FALSE(mounted("Notes"));
    EXPECT_EQ(FolderFaceRef{face("Notes")}.statusText().toString(), "as it was");
    EXPECT_EQ(notifications.texts(1), std::vector<std::string>{refusal});
    EXPECT_FALSE(notifications.shown().back().sticky);

    // An action that fails is reported, and the folder is unlocked all the same.
    children.stopAll();
    const std::string missing = apps.path("not there.txt");
    setActions(notes, false, {folderAction(QVActionOpen, missing)});
    result = unlock("Notes");
    EXPECT_FALSE(result) << result->description;
    EXPECT_TRUE(mounted("Notes"));
    EXPECT_EQ(notifications.texts(1).back(), "Last configured action failed with error:\nCouldn't open: " + missing);
    EXPECT_TRUE(notifications.shown()[notifications.shown().size() - 2].sticky);
    EXPECT_EQ(notifications.texts(0).back(), "Unlocked 'Notes'.") << "told after the actions ran";
}
