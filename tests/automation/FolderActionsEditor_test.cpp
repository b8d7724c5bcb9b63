// The actions screen's logic and the actions cache: duplicates, the folders
// offered as targets, the dependency-cycle test with its refusals, rows, and
// what OK and Cancel leave behind.
#include "automation/FolderActionsEditor.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "automation/ActionsCache.h"
#include "automation/ActionsManager.h"
#include "automation/AutomationTestSupport.h"
#include "support/QtApp.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

using namespace qv;
using namespace qv::test;

namespace {

class FolderActionsEditorTest : public ::testing::Test {
protected:
    void SetUp() override {
        qtApp();
        storage = QVStorageCreate("Default", URLValue{apps.path("storage")});
        for (const char* name : {"A", "B", "C"}) {
            QVRecordRef f = QVFolderCreate(storage, URLValue{apps.path(name)});
            folders.push_back(f);
        }
        subdb = DBSubdb::subdbWithFolders(folders, "pw");
        for (const auto& f : folders) QVRecordSetSubdb(f, subdb);
    }
    void TearDown() override { ActionsCache::actionsCache().clear(); }

    std::string path(int i) const { return apps.path(std::string(1, char('A' + i))); }
    // Adds an action to a folder's list directly, as an earlier session would have.
    void aim(int from, int to, bool lock) {
        FolderActionsEditor(folders[from]).actions(lock)->push_back(
            Value(QVFolderActionCreate(URLValue{path(to)}, lock ? QVActionLockFolder : QVActionUnlockFolder)));
    }
    static std::vector<std::string> names(const std::vector<QVRecordRef>& list) {
        std::vector<std::string> out;
        for (const auto& f : list)
            out.push_back(std::filesystem::path(FolderRef{f}.mountpoint().toURLPath()).filename().string());
        return out;
    }

    ApplicationsSandbox apps;
    RecordedNotifications notifications;
    QVRecordRef storage;
    std::vector<QVRecordRef> folders;
    DBSubdbRef subdb;
};

} // namespace

TEST_F(FolderActionsEditorTest, TheCycleTestLooksOnlyAtWhoPointsAtThisFolder) {
    FolderActionsEditor a(folders[0]);
    FolderActionsEditor b(folders[1]);
    EXPECT_FALSE(a.hasCircularDependenciesForActions(nullptr));
    // Two folders that unlock each other pass.
    EXPECT_EQ(a.addFolderActionWithURL(path(1), false), FolderActionsEditor::AddResult::Added);
    EXPECT_EQ(b.addFolderActionWithURL(path(0), false), FolderActionsEditor::AddResult::Added);

    // C locks A; B, earlier in the set, unlocks A: the walk ends at B, and A
    // may still take folder actions.
    aim(2, 0, true);
    EXPECT_EQ(a.addFolderActionWithURL(path(2), true), FolderActionsEditor::AddResult::Added);
    // Without B's reference, A takes none, in either list.
    b.actions(false)->clear();
    EXPECT_EQ(a.addFolderActionWithURL(path(2), false), FolderActionsEditor::AddResult::WouldCycle);
    EXPECT_EQ(a.addFolderActionWithURL(path(1), true), FolderActionsEditor::AddResult::WouldCycle);
    processEventsFor(20);
    EXPECT_EQ(notifications.texts(1),
              (std::vector<std::string>{FolderActionsEditor::kCycleAlert, FolderActionsEditor::kCycleAlert}));
    EXPECT_EQ(a.actions(true)->size(), 1u) << "a refused action isn't added";
    EXPECT_EQ(a.actions(false)->size(), 1u);
    // Open and Quit actions never go through the test.
    EXPECT_TRUE(a.addOpenActionWithURL(apps.path("notes.txt"), true));

    // Any action whose URL is A's counts, whatever its code.
    for (auto& f : folders) {
        FolderRef{f}.setLockActions(Value::newArray());
        FolderRef{f}.setUnlockActions(Value());
    }
    FolderActionsEditor(folders[2]).actions(true)->push_back(Value(QVFolderActionCreate(URLValue{path(0)}, QVActionQuit)));
    EXPECT_TRUE(a.hasCircularDependenciesForActions(nullptr));
    FolderRef{folders[2]}.setLockActions(Value::newArray());
    // Only direct references count: A, B and C unlocking each other in a ring pass.
    EXPECT_EQ(a.addFolderActionWithURL(path(1), false), FolderActionsEditor::AddResult::Added);
    EXPECT_EQ(b.addFolderActionWithURL(path(2), false), FolderActionsEditor::AddResult::Added);
    EXPECT_EQ(FolderActionsEditor(folders[2]).addFolderActionWithURL(path(0), false),
              FolderActionsEditor::AddResult::Added);
}

TEST_F(FolderActionsEditorTest, EachListKeepsOneActionPerItemAndOffersTheFoldersItDoesntName) {
    FolderActionsEditor a(folders[0]);
    EXPECT_TRUE(a.folderItemsEnabled());
    EXPECT_EQ(names(a.candidateFolders(false)), (std::vector<std::string>{"B", "C"})) << "never the folder itself";

    EXPECT_EQ(a.addFolderActionWithURL(path(1), false), FolderActionsEditor::AddResult::Added);
    EXPECT_EQ(a.addFolderActionWithURL(path(1) + "/", false), FolderActionsEditor::AddResult::Duplicate);
    EXPECT_EQ(names(a.candidateFolders(false)), std::vector<std::string>{"C"});
    EXPECT_EQ(names(a.candidateFolders(true)), (std::vector<std::string>{"B", "C"}));
    EXPECT_TRUE(FolderActionsEditor::folderHasActionForFolder(folders[0], folders[1], false));
    EXPECT_FALSE(FolderActionsEditor::folderHasActionForFolder(folders[0], folders[1], true));

    // The same item twice in one list is dropped; across the lists it is not.
    const std::string app = apps.writeApplication("tool.desktop", "Tool", "/bin/true");
    EXPECT_TRUE(a.addOpenActionWithURL(app, false));  // Quit, in the lock list
    EXPECT_FALSE(a.addOpenActionWithURL(app, false));
    EXPECT_TRUE(a.addOpenActionWithURL(app, true));  // Open, in the unlock list
    ASSERT_EQ(a.lockActions()->size(), 1u);
    FolderActionRef quit{a.lockActions()->front().as<QVRecord>()};
    EXPECT_EQ(quit.action().toInt(), QVActionQuit);
    EXPECT_EQ(quit.priority().toInt(), 1);
    EXPECT_EQ(quit.parameter().toString(), "tool.desktop") << "an application is named by its id";
    EXPECT_TRUE(a.addOpenActionWithURL(apps.path("notes.txt"), true));
    EXPECT_TRUE(FolderActionRef{a.unlockActions()->back().as<QVRecord>()}.parameter().isNull());

    // Rows in list order, with their words and icons.
    const auto rows = a.rows(false);
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].name, "B");
    EXPECT_EQ(rows[0].word, "Unlock Folder");
    EXPECT_EQ(rows[0].icon, "action-unlock.png");
    EXPECT_EQ(rows[1].name, "Tool");
    EXPECT_EQ(rows[1].word, "Open");
    EXPECT_EQ(rows[2].name, "notes.txt");
    EXPECT_EQ(a.rows(true)[0].icon, "action-close.icns");
    EXPECT_EQ(FolderActionsEditor::nameForURL(""), "");
    EXPECT_EQ(FolderActionsEditor::nameForURL(apps.path("Old.app")), "Quillvane") << "a bundle without a name";

    // Deleting only within bounds.
    EXPECT_FALSE(a.deleteAction(3, false));
    EXPECT_TRUE(a.deleteAction(0, false));
    EXPECT_EQ(a.rows(false)[0].name, "Tool");
}

TEST_F(FolderActionsEditorTest, CancelKeepsTheEditsInMemoryAndOkHandsThemToTheCache) {
    ActionsCache& cache = ActionsCache::actionsCache();
    FolderRef a{folders[0]};
    a.setLockActions(Value());  // a record that came without its list
    FolderActionsEditor editor(folders[0]);
    editor.addFolderActionWithURL(path(1), true);
    editor.cancel();
    ASSERT_TRUE(a.lockActions().toArray());
    EXPECT_EQ(a.lockActions().toArray()->size(), 1u);
    EXPECT_FALSE(cache.lockActionsForURL(path(0)));

    editor.done();  // the set belongs to no database: the save fails, the cache still learns
    EXPECT_EQ(cache.lockActionsForURL(path(0)), a.lockActions().toArray()) << "the folder's own array";
    EXPECT_EQ(cache.unlockActionsForURL(path(0)), a.unlockActions().toArray());
    editor.addOpenActionWithURL(apps.path("x.txt"), true);
    EXPECT_EQ(cache.unlockActionsForURL(path(0))->size(), 1u) << "later edits show through";

    // Empty paths and absent folders or lists change nothing.
    cache.setActionsForFolder(nullptr);
    cache.setActions(nullptr, path(1), cache.lockActions());
    cache.setActions(std::make_shared<Array>(), "", cache.lockActions());
    EXPECT_FALSE(cache.actionsForURL("", cache.lockActions()));
    EXPECT_FALSE(cache.lockActionsForURL(path(1)));
    EXPECT_EQ(cache.lockActions().size(), 1u);
}
