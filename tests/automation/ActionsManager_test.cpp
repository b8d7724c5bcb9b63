// Running a folder's actions without mounting anything: the order of a list,
// the rule that the first failure ends a run and its one exception, quitting
// applications. Chains of folders run with real images elsewhere.
#include "automation/ActionsManager.h"

#include <gtest/gtest.h>

#include "automation/AutomationTestSupport.h"
#include "disk/RunningApplications.h"
#include "support/QtApp.h"
#include "app/FolderList.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

using namespace qv;
using namespace qv::test;

namespace {

class ActionsManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        qtApp();
        std::filesystem::create_directories(apps.path("Alpha"));
        alpha = QVFolderCreate(QVStorageCreate("Default", URLValue{apps.path("s")}), URLValue{apps.path("Alpha")});
        subdb = DBSubdb::subdbWithFolders({alpha}, "pw");
        QVRecordSetSubdb(alpha, subdb);
        FolderList::singleton().loadSubdb(subdb);  // where actions find their folders
    }
    void TearDown() override {
        processEventsFor(20);
        FolderList::singleton().returnSubDB();
    }
    void setList(bool lock, const std::vector<QVRecordRef>& actions) { setActions(alpha, lock, actions); }

    ApplicationsSandbox apps;
    Children children;
    RecordedNotifications notifications;
    QVRecordRef alpha;
    DBSubdbRef subdb;
    ActionsManager manager;
};

} // namespace

TEST_F(ActionsManagerTest, AListRunsByPriorityAndItsFirstFailureEndsIt) {
    const std::string missing = apps.path("no such item");
    // Listed last, the Unlock Folder action (0) runs before the Open (99), and its failure ends the run.
    setList(false, {folderAction(QVActionOpen, missing), folderAction(QVActionUnlockFolder, apps.path("Gone"))});
    QVError error;
    EXPECT_FALSE(manager.executeUnlockActions(alpha, &error));
    EXPECT_EQ(error.code, QVErrorActionFailed);
    EXPECT_EQ(error.description, "Folder not found in the database: Alpha") << "names the folder that owns the action";
    setList(false, {folderAction(9, missing)});
    EXPECT_FALSE(manager.executeUnlockActions(alpha, &error));
    EXPECT_EQ(error.description, "Unknown operation type!");

    // A Lock Folder action without its folder lets the run go on with its error set,
    // until an action after it overwrites it.
    const std::string probe = apps.writeApplication("probe.desktop", "Probe", apps.script("qv-probe", "exit 0"));
    const QVRecordRef lockGone = folderAction(QVActionLockFolder, apps.path("Gone"));
    setList(true, {lockGone, folderAction(QVActionQuit, probe, Value("probe.desktop"))});
    error = QVError();
    EXPECT_TRUE(manager.executeLockActions(alpha, &error));
    EXPECT_EQ(error.description, "Folder not found in the database: Alpha");
    setList(true, {lockGone, folderAction(QVActionOpen, probe, Value("probe.desktop"))});
    EXPECT_TRUE(manager.executeLockActions(alpha, &error));
    EXPECT_TRUE(error.empty()) << error.description;
    setList(true, {folderAction(QVActionOpen, missing), lockGone});
    EXPECT_FALSE(manager.executeLockActions(alpha, &error));
    EXPECT_EQ(error.description, "Couldn't open: " + missing);
    alpha->setValueForKey(Value(), "lockActions");
    EXPECT_TRUE(manager.executeLockActions(alpha, &error)) << "an absent list succeeds";
}

TEST_F(ActionsManagerTest, QuitAsksEveryInstanceInTurnAndShowsItOnTheRow) {
    const std::string program = apps.sleeper("qv-quit-me");
    const std::string entry = apps.writeApplication("quitme.desktop", "Quit Me", program + " 600");
    const QVRecordRef face = ActionsManager::faceForFolder(apps.path("Alpha") + "/");
    ASSERT_EQ(face, FolderList::singleton().faces()[0]);
    const pid_t first = children.start({program, "600"});
    const pid_t second = children.start({program, "600"});
    ASSERT_TRUE(eventually(
        [] { return QVRunningApplication::runningApplicationsWithBundleIdentifier("quitme.desktop").size() == 2; }));
    setList(true, {folderAction(QVActionQuit, entry, Value(42))});
    EXPECT_TRUE(manager.executeLockActions(alpha, nullptr)) << "an identifier that isn't text: nothing to do";
    EXPECT_FALSE(children.exited(first));
    setList(true, {folderAction(QVActionQuit, entry, Value("quitme.desktop"))});
    EXPECT_TRUE(manager.executeLockActions(alpha, nullptr));
    EXPECT_TRUE(children.exited(first));
    EXPECT_TRUE(children.exited(second));
    processEventsFor(20);
    EXPECT_EQ(FolderFaceRef{face}.statusText().toString(), "Closing quitme...");
}
