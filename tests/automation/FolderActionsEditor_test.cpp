// The actions screen's logic and the actions cache: the dependency-cycle test
// and its refusals, one action per item in a list, the folders offered as
// targets, and what Cancel and OK leave behind.
#include "automation/FolderActionsEditor.h"

#include <gtest/gtest.h>

#include "automation/ActionsCache.h"
#include "automation/ActionsManager.h"
#include "automation/AutomationTestSupport.h"
#include "support/QtApp.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

using namespace qv;
using namespace qv::test;
using Result = FolderActionsEditor::AddResult;

namespace {

class FolderActionsEditorTest : public ::testing::Test {
protected:
    void SetUp() override {
        qtApp();
        for (const char* name : {"A", "B", "C"})
            folders.push_back(QVFolderCreate(QVStorageCreate("Default", URLValue{"/s"}), URLValue{path(name)}));
        subdb = DBSubdb::subdbWithFolders(folders, "pw");
        for (const auto& f : folders) QVRecordSetSubdb(f, subdb);
    }
    void TearDown() override { ActionsCache::actionsCache().clear(); }
    static std::string path(const std::string& name) { return "/folders/" + name; }
    FolderActionsEditor editor(int i) { return FolderActionsEditor(folders[i]); }

    ApplicationsSandbox apps;
    RecordedNotifications notifications;
    std::vector<QVRecordRef> folders;
    DBSubdbRef subdb;
};

} // namespace

// A folder action that leads back to its own folder would lock or unlock it from inside itself.
TEST_F(FolderActionsEditorTest, TheCycleTestLooksOnlyAtWhoPointsAtThisFolder) {
    // Two folders that unlock each other pass.
    EXPECT_EQ(editor(0).addFolderActionWithURL(path("B"), false), Result::Added);
    EXPECT_EQ(editor(1).addFolderActionWithURL(path("A"), false), Result::Added);
    // C locks A, but B, earlier in the set, unlocks A: the walk ends at B.
    editor(2).actions(true)->push_back(Value(QVFolderActionCreate(URLValue{path("A")}, QVActionLockFolder)));
    EXPECT_EQ(editor(0).addFolderActionWithURL(path("C"), true), Result::Added);
    // Without B's reference A takes no folder action, in either list; Open still goes in.
    editor(1).actions(false)->clear();
    EXPECT_EQ(editor(0).addFolderActionWithURL(path("C"), false), Result::WouldCycle);
    EXPECT_EQ(editor(0).addFolderActionWithURL(path("B"), true), Result::WouldCycle);
    EXPECT_EQ(editor(0).actions(true)->size(), 1u);
    EXPECT_TRUE(editor(0).addOpenActionWithURL("/notes.txt", true));
    processEventsFor(20);
    EXPECT_EQ(notifications.texts(1), std::vector<std::string>(2, FolderActionsEditor::kCycleAlert));
}

TEST_F(FolderActionsEditorTest, EachListHoldsAnItemOnceAndOkHandsTheListsToTheCache) {
    FolderActionsEditor a = editor(0);
    EXPECT_EQ(a.addFolderActionWithURL(path("B"), false), Result::Added);
    EXPECT_EQ(a.addFolderActionWithURL(path("B") + "/", false), Result::Duplicate);
    EXPECT_EQ(a.candidateFolders(false).size(), 1u) << "C only: never A itself, nor B again";
    // The same item twice in one list is dropped; across the lists it isn't.
    const std::string tool = apps.writeApplication("tool.desktop", "Tool", "/bin/true");
    EXPECT_TRUE(a.addOpenActionWithURL(tool, false));
    EXPECT_FALSE(a.addOpenActionWithURL(tool, false));
    EXPECT_TRUE(a.addOpenActionWithURL(tool, true));
    FolderActionRef quit{a.lockActions()->front().as<QVRecord>()};
    EXPECT_EQ(quit.action().toInt(), QVActionQuit);
    EXPECT_EQ(quit.parameter().toString(), "tool.desktop") << "an application is named by its id";
    EXPECT_FALSE(a.deleteAction(2, false));
    EXPECT_TRUE(a.deleteAction(0, false));

    // Cancel undoes nothing; OK hands the folder's own arrays to the cache,
    // even when the set can't be saved (it belongs to no database here).
    a.cancel();
    ActionsCache& cache = ActionsCache::actionsCache();
    EXPECT_FALSE(cache.lockActionsForURL(path("A")));
    a.done();
    EXPECT_EQ(cache.lockActionsForURL(path("A")), a.lockActions());
    EXPECT_EQ(cache.unlockActionsForURL(path("A"))->size(), 1u);
}
