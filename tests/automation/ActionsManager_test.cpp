// Running a folder's actions without mounting anything: the order of a list,
// the rule that the first failure ends a run (and its one exception), asking
// applications to quit, what a refused unlock looks for, and a chain that comes
// back to a folder already running its actions.
#include "automation/ActionsManager.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "automation/AutomationTestSupport.h"
#include "automation/RunningApplications.h"
#include "support/QtApp.h"
#include "ui/logic/FolderList.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

using namespace qv;
using namespace qv::test;

namespace {

class ActionsManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        qtApp();
        storage = QVStorageCreate("Default", URLValue{apps.path("storage")});
    }
    void TearDown() override {
        processEventsFor(20);
        FolderList::singleton().returnSubDB();
    }

    // A folder of a set on show in the folder list (so that actions find it).
    QVRecordRef folder(const std::string& name) {
        const std::string path = apps.path(name);
        std::filesystem::create_directories(path);
        QVRecordRef f = QVFolderCreate(storage, URLValue{path});
        folders.push_back(f);
        subdb = DBSubdb::subdbWithFolders(folders, "pw");
        for (const auto& each : folders) QVRecordSetSubdb(each, subdb);
        FolderList::singleton().loadSubdb(subdb);
        return f;
    }
    static QVRecordRef action(int64_t code, const std::string& url, Value parameter = Value()) {
        QVRecordRef a = QVFolderActionCreate(URLValue{url}, code);
        FolderActionRef{a}.setParameter(parameter);
        return a;
    }
    static void setList(const QVRecordRef& folder, bool lock, std::vector<QVRecordRef> actions) {
        Array items;
        for (auto& a : actions) items.push_back(Value(a));
        if (lock)
            FolderRef{folder}.setLockActions(Value::newArray(items));
        else
            FolderRef{folder}.setUnlockActions(Value::newArray(items));
    }

    ApplicationsSandbox apps;
    Children children;
    RecordedNotifications notifications;
    QVRecordRef storage;
    std::vector<QVRecordRef> folders;
    DBSubdbRef subdb;
    ActionsManager manager;
};

} // namespace

TEST_F(ActionsManagerTest, AListRunsByPriorityAndItsFirstFailureEndsIt) {
    QVRecordRef a = folder("Alpha");
    // Listed last, but Unlock Folder (0) runs before Open (99): its failure ends
    // the run before the Open that would fail otherwise.
    setList(a, false,
            {action(QVActionOpen, apps.path("no such item")), action(QVActionUnlockFolder, apps.path("Gone"))});
    QVError error;
    EXPECT_FALSE(manager.executeUnlockActions(a, &error));
    EXPECT_EQ(error.domain, QVAppErrorDomain());
    EXPECT_EQ(error.code, QVErrorActionFailed);
    EXPECT_EQ(error.description, "Folder not found in the database: Alpha") << "names the folder that owns the action";

    setList(a, false, {action(QVActionOpen, apps.path("no such item")), action(9, apps.path("x"))});
    FolderActionRef{(*FolderRef{a}.unlockActions().toArray())[1].as<QVRecord>()}.setPriority(Value(5));
    error = QVError();
    EXPECT_FALSE(manager.executeUnlockActions(a, &error));
    EXPECT_EQ(error.code, QVErrorFailed);
    EXPECT_EQ(error.description, "Unknown operation type!");

    setList(a, false, {action(QVActionOpen, apps.path("no such item"))});
    error = QVError();
    EXPECT_FALSE(manager.executeUnlockActions(a, &error));
    EXPECT_EQ(error.code, QVErrorFailed);
    EXPECT_EQ(error.description, "Couldn't open: " + apps.path("no such item"));
    EXPECT_EQ(FolderRef{a}.unlockActions().toArray()->size(), 1u) << "the run sorts a copy, not the folder's list";
}

TEST_F(ActionsManagerTest, ALockFolderActionWithoutItsFolderLetsTheRunGoOnWithTheErrorSet) {
    QVRecordRef a = folder("Alpha");
    const std::string probe =
        apps.writeApplication("probe.desktop", "Probe", apps.script("qv-probe", "exit 0"));
    const QVRecordRef lockMissing = action(QVActionLockFolder, apps.path("Gone"));
    const QVRecordRef quitIdle = action(QVActionQuit, probe, Value("probe.desktop"));

    // A Quit (1) runs first, then the Lock Folder (98): the run succeeds and the error stays.
    setList(a, true, {lockMissing, quitIdle});
    QVError error;
    EXPECT_TRUE(manager.executeLockActions(a, &error));
    EXPECT_EQ(error.code, QVErrorActionFailed);
    EXPECT_EQ(error.description, "Folder not found in the database: Alpha");

    // An Open after it (99) overwrites the error: a success clears it, a failure replaces it.
    setList(a, true, {lockMissing, action(QVActionOpen, probe, Value("probe.desktop"))});
    error = QVError();
    EXPECT_TRUE(manager.executeLockActions(a, &error));
    EXPECT_TRUE(error.empty()) << error.description;
    setList(a, true, {action(QVActionOpen, apps.path("missing.txt")), lockMissing});
    EXPECT_FALSE(manager.executeLockActions(a, &error));
    EXPECT_EQ(error.description, "Couldn't open: " + apps.path("missing.txt"));
}

TEST_F(ActionsManagerTest, AnEmptyOrAbsentListSucceedsAndLeavesTheErrorAlone) {
    QVRecordRef a = folder("Alpha");
    FolderRef{a}.setLockActions(Value());
    QVError error{"kept", 7, "as it was"};
    EXPECT_TRUE(manager.executeUnlockActions(a, &error));
    EXPECT_TRUE(manager.executeLockActions(a, &error));
    EXPECT_TRUE(manager.executeActions(nullptr, a, &error));
    EXPECT_EQ(error.description, "as it was");
    EXPECT_TRUE(manager.executeUnlockActions(nullptr, nullptr)) << "no folder, no error out-parameter";
}

TEST_F(ActionsManagerTest, QuitAsksEveryInstanceOneAfterTheOtherAndShowsItOnTheRow) {
    QVRecordRef a = folder("Alpha");
    const std::string program = apps.sleeper("qv-quit-me");
    const std::string entry = apps.writeApplication("quitme.desktop", "Quit Me", program + " 600");
    const QVRecordRef face = ActionsManager::faceForFolder(apps.path("Alpha"));
    ASSERT_TRUE(face);
    FolderList::singleton().setStatusText("at rest", false, face);

    // Nothing running, no identifier, or one that isn't text: nothing to do, nothing shown.
    for (const Value& parameter : {Value("quitme.desktop"), Value(), Value(42)}) {
        setList(a, true, {action(QVActionQuit, entry, parameter)});
        EXPECT_TRUE(manager.executeLockActions(a, nullptr));
    }
    processEventsFor(20);
    EXPECT_EQ(FolderFaceRef{face}.statusText().toString(), "at rest");

    const pid_t first = children.start({program, "600"});
    const pid_t second = children.start({program, "600"});
    ASSERT_TRUE(eventually(
        [] { return QVRunningApplication::runningApplicationsWithBundleIdentifier("quitme.desktop").size() == 2; }));
    setList(a, true, {action(QVActionQuit, entry, Value("quitme.desktop"))});
    QVError error;
    EXPECT_TRUE(manager.executeLockActions(a, &error)) << error.description;
    EXPECT_TRUE(children.exited(first));
    EXPECT_TRUE(children.exited(second));
    processEventsFor(20);
    EXPECT_EQ(FolderFaceRef{face}.statusText().toString(), "Closing quitme...");
    EXPECT_TRUE(FolderFaceRef{face}.progressIndeterminate().toBool());
}

TEST_F(ActionsManagerTest, AnUnlockIsHeldBackOnlyByARunningApplicationOfItsOpenActions) {
    QVRecordRef a = folder("Alpha");
    const std::string program = apps.sleeper("qv-viewer");
    const std::string viewer = apps.writeApplication("viewer.desktop", "Viewer", program + " 600");
    const std::string quitter = apps.writeApplication("quitter.desktop", "Quitter", program + " 600");
    setList(a, false,
            {action(QVActionOpen, apps.path("notes.txt")), action(QVActionOpen, viewer, Value("viewer.desktop")),
             action(QVActionQuit, quitter, Value("quitter.desktop"))});
    setList(a, true, {action(QVActionOpen, quitter, Value("quitter.desktop"))});
    EXPECT_EQ(ActionsManager::openAppActionsInFolder(a, false), std::vector<std::string>{"viewer.desktop"});
    EXPECT_EQ(ActionsManager::openAppActionsInFolder(a, true), std::vector<std::string>{"quitter.desktop"});

    EXPECT_FALSE(ActionsManager::appInUnlockActionsIsRunning(a));
    children.start({program, "600"});
    std::optional<std::string> running;
    ASSERT_TRUE(eventually([&] { return (running = ActionsManager::appInUnlockActionsIsRunning(a)).has_value(); }));
    EXPECT_EQ(*running, "Viewer");
}

TEST_F(ActionsManagerTest, AChainThatComesBackToAFolderRunningItsActionsStopsThere) {
    QVRecordRef a = folder("Alpha");
    QVRecordRef b = folder("Beta");
    EXPECT_EQ(ActionsManager::faceForFolder(apps.path("Beta") + "/"), FolderList::singleton().faces()[1]);
    EXPECT_FALSE(ActionsManager::faceForFolder(apps.path("Gamma")));
    EXPECT_FALSE(ActionsManager::faceForFolder(""));

    // Alpha's own list names Alpha: running it again here would never end.
    // (Beta has no image: a task that did run on it fails, which shows below.)
    setList(a, false, {action(QVActionUnlockFolder, apps.path("Alpha"))});
    setList(a, true, {action(QVActionLockFolder, apps.path("Alpha"))});
    QVError error{"stale", 1, "stale"};
    EXPECT_TRUE(manager.executeUnlockActions(a, &error));
    EXPECT_TRUE(error.empty()) << "an action that succeeds leaves no error";
    EXPECT_TRUE(manager.executeLockActions(a, &error));

    // The guard is for this chain only: Beta, not running, does run, and its
    // failure becomes the action's.
    setList(a, false, {action(QVActionUnlockFolder, apps.path("Beta"))});
    EXPECT_FALSE(manager.executeUnlockActions(a, &error));
    EXPECT_EQ(error.code, QVErrorUnlockRefused);
    EXPECT_EQ(error.description, "Failed to mount disk image, error:\n\nDisk image information missing");
    (void)b;
}
