// The folder list as a model: what loading, removing, reordering, searching and
// the lock switch do to the faces, the Folder Set and the task queue.
#include "ui/logic/FolderList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "app/UserDefaults.h"
#include "support/QtApp.h"
#include "support/TempHome.h"
#include "tasks/BaseFolderTask.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv {
namespace {

namespace fs = std::filesystem;

class FolderListTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::qtApp();
        ASSERT_TRUE(registerQuillvaneDefaults());
        storage = QVStorageCreate("Default", URLValue{home.root() + "/storage"});
        list.setQueue(&queue);
        list.setTaskMakers({
            .encrypt = [this](const QVRecordRef& f) { return recording("encrypt", f); },
            .decrypt = [this](const QVRecordRef& f) { return recording("decrypt", f); },
            .lock = [this](const QVRecordRef& f) { return recording("lock", f); },
            .unlock = [this](const QVRecordRef& f, bool open) { return recording(open ? "unlock+open" : "unlock", f); },
        });
    }
    void TearDown() override {
        queue.waitUntilAllOperationsAreFinished();
        list.returnSubDB();
        list.setTaskMakers({});
        list.setQueue(nullptr);
        list.search("");
        list.setEmptyListHandler(nullptr);
    }

    // An operation that notes which task the list asked for, and of which folder.
    OperationRef recording(const std::string& kind, const QVRecordRef& face) {
        const std::string name = fs::path(FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.mountpoint().toURLPath())
                                     .filename()
                                     .string();
        return BlockOperation::blockOperationWithVoidBlock([this, kind, name] {
            std::lock_guard lock(mutex);
            queued.push_back(kind + " " + name);
        });
    }
    std::vector<std::string> tasks() {
        queue.waitUntilAllOperationsAreFinished();
        std::lock_guard lock(mutex);
        auto sorted = queued;  // the queue runs them side by side: the order is not theirs to keep
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    }

    QVRecordRef folder(const std::string& name, int64_t position, bool makeDir = true) {
        const std::string path = home.root() + "/" + name;
        if (makeDir) fs::create_directories(path);
        QVRecordRef f = QVFolderCreate(storage, URLValue{path});
        FolderRef{f}.setPosition(Value(position));
        return f;
    }
    std::shared_ptr<DBSubdb> load(const std::vector<QVRecordRef>& folders) {
        auto subdb = DBSubdb::subdbWithFolders(folders, "pw");
        list.loadSubdb(subdb);
        return subdb;
    }
    std::vector<std::string> names(const std::vector<QVRecordRef>& faces) {
        std::vector<std::string> out;
        for (const auto& face : faces)
            out.push_back(fs::path(FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.mountpoint().toURLPath())
                              .filename()
                              .string());
        return out;
    }
    std::vector<int64_t> positions() {
        std::vector<int64_t> out;
        for (const auto& face : list.faces())
            out.push_back(FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.position().toInt());
        return out;
    }

    test::TempHome home;
    FolderList& list = FolderList::singleton();
    OperationQueue queue;
    QVRecordRef storage;
    std::mutex mutex;
    std::vector<std::string> queued;
};

TEST_F(FolderListTest, LoadingSortsByPositionAndSetsEachRowUp) {
    load({folder("C", 2), folder("A", 0), folder("Gone", 1, false), folder("B", 0)});
    EXPECT_EQ(names(list.faces()), (std::vector<std::string>{"A", "B", "Gone", "C"})) << "ties keep the set's order";

    FolderFaceRef gone{list.faces()[2]};
    EXPECT_EQ(gone.statusText().toString(), "Mountpoint missing!");
    EXPECT_TRUE(FolderList::isErrorStatusColor(gone.statusColor()));
    EXPECT_TRUE(gone.locked().toBool());

    FolderFaceRef a{list.faces()[0]};
    EXPECT_TRUE(a.locked().toBool()) << "a plain directory is a locked folder";
    EXPECT_FALSE(FolderList::isErrorStatusColor(a.statusColor()));
    EXPECT_NE(a.statusText().toString().find(" used"), std::string::npos);
    EXPECT_EQ(a.actionIcon().toString(), "Info");

    // A running task shows the cancel control, and the control cancels it.
    a.setCancelable(Value(true));
    EXPECT_EQ(a.actionIcon().toString(), "Cancel");
    EXPECT_EQ(a.actionIconAlt().toString(), "CancelPressed");
    list.setDetailsFace(a.record);
    a.setCancelable(Value(false));
    EXPECT_EQ(a.actionIcon().toString(), "Back") << "its details are on show";
    list.setDetailsFace(nullptr);
    EXPECT_FALSE(list.folderAction(a.record)) << "an idle face has nothing to cancel";
    EXPECT_FALSE(a.opCanceled().toBool());

    // The set goes away with the window's lock; the old faces are no longer heard.
    QVRecordRef old = a.record;
    list.returnSubDB();
    EXPECT_TRUE(list.faces().empty());
    EXPECT_EQ(list.subdb(), nullptr);
    FolderFaceRef{old}.setCancelable(Value(true));
    EXPECT_EQ(FolderFaceRef{old}.actionIcon().toString(), "Back") << "left as it was";
}

TEST_F(FolderListTest, RemovingTakesTheFolderOutOfTheSetAndShowsTheEmptyListAtTheEnd) {
    auto subdb = load({folder("A", 0), folder("B", 1)});
    int emptied = 0;
    list.setEmptyListHandler([&] { ++emptied; });
    list.removeFolderFace(list.faces()[0]);
    EXPECT_EQ(names(list.faces()), std::vector<std::string>{"B"});
    ASSERT_EQ(subdb->folders().size(), 1u);
    EXPECT_EQ(emptied, 0);
    list.removeFolderFace(list.faces()[0]);
    EXPECT_TRUE(subdb->folders().empty());
    EXPECT_TRUE(list.showsEmptyList());
    EXPECT_EQ(emptied, 1);
    list.selectNext();
    list.selectPrevious();
    EXPECT_FALSE(list.selectedRow()) << "no rows, no selection";
}

TEST_F(FolderListTest, DropsMoveRowsAndRenumberEveryPosition) {
    load({folder("A", 7), folder("B", 7), folder("C", 40)});
    EXPECT_TRUE(list.acceptDrop({0}, 2));
    EXPECT_EQ(names(list.faces()), (std::vector<std::string>{"B", "A", "C"})) << "row 0 below row 2 lands at 1";
    EXPECT_EQ(positions(), (std::vector<int64_t>{0, 1, 2})) << "no gaps, whatever was there before";

    EXPECT_TRUE(list.acceptDrop({1, 2}, 1)) << "a drop on a row of the drag still ends the drag";
    EXPECT_EQ(names(list.faces()), (std::vector<std::string>{"B", "A", "C"}));
    EXPECT_TRUE(list.acceptDrop({1, 2}, 0));
    EXPECT_EQ(names(list.faces()), (std::vector<std::string>{"A", "C", "B"}));
    EXPECT_TRUE(list.acceptDrop({0}, 3));
    EXPECT_EQ(names(list.faces()), (std::vector<std::string>{"C", "B", "A"})) << "a drop below the last row";
    EXPECT_EQ(positions(), (std::vector<int64_t>{0, 1, 2}));
    EXPECT_TRUE(list.acceptDrop({9}, 0)) << "a stale index moves nothing";
    EXPECT_EQ(names(list.faces()), (std::vector<std::string>{"C", "B", "A"}));
}

TEST_F(FolderListTest, SearchFiltersByNameIgnoringCaseAndANewFolderClearsIt) {
    load({folder("Photos", 0), folder("Taxes 2026", 1), folder("photo-backup", 2)});
    list.search("PHOTO");
    EXPECT_EQ(names(list.arrangedFaces()), (std::vector<std::string>{"Photos", "photo-backup"}));
    list.selectPrevious();
    EXPECT_EQ(names({list.selectedFolderFace()}), std::vector<std::string>{"photo-backup"}) << "none: the last row";
    list.selectPrevious();
    list.selectPrevious();
    EXPECT_EQ(*list.selectedRow(), 0u) << "never above the first row";
    list.selectNext();
    list.selectNext();
    EXPECT_EQ(*list.selectedRow(), 1u) << "the last row stays";

    ASSERT_TRUE(list.encryptFolder(folder("New", 0)));
    EXPECT_EQ(list.searchText(), "");
    EXPECT_EQ(list.arrangedFaces().size(), 4u);
    EXPECT_EQ(positions().back(), 3);
    EXPECT_EQ(QVRecordGetSubdb(FolderFaceRef{list.faces().back()}.folder().as<QVRecord>()), list.subdb());
    EXPECT_EQ(tasks(), std::vector<std::string>{"encrypt New"});
}

TEST_F(FolderListTest, TheLockSwitchQueuesTheTaskForTheRealStateAndShiftReversesOpening) {
    QVRecordRef withOpen = folder("WithOpen", 1);
    QVRecordRef action = QVRecordForProtocol(FolderAction);
    FolderActionRef{action}.setAction(Value(int64_t(1)));
    FolderRef{withOpen}.setUnlockActions(Value::newArray({Value(action)}));
    load({folder("Plain", 0), withOpen});
    QVRecordRef plain = list.faces()[0];

    auto& defaults = QVUserDefaults::standardUserDefaults();
    defaults.setObject("QVOpenFolderAfterUnlock", Value(true));
    EXPECT_TRUE(list.shouldOpenFolderInFinder(plain, false));
    EXPECT_FALSE(list.shouldOpenFolderInFinder(plain, true));
    EXPECT_FALSE(list.shouldOpenFolderInFinder(list.faces()[1], false)) << "an Open action opens instead";
    defaults.setObject("QVOpenFolderAfterUnlock", Value(false));
    EXPECT_FALSE(list.shouldOpenFolderInFinder(plain, false));
    EXPECT_TRUE(list.shouldOpenFolderInFinder(plain, true));
    EXPECT_FALSE(list.shouldOpenFolderInFinder(list.faces()[1], true));

    // The switch's binding has flipped `locked` already: a locked folder reads unlocked.
    FolderFaceRef{plain}.setLocked(Value(false));
    EXPECT_TRUE(list.toggleFolderLockOfFolderFace(plain, true));
    EXPECT_TRUE(FolderFaceRef{plain}.locked().toBool()) << "the real state until the task ends";
    FolderFaceRef{plain}.setLocked(Value(true));
    EXPECT_TRUE(list.toggleFolderLockOfFolderFace(plain));
    EXPECT_EQ(tasks(), (std::vector<std::string>{"lock Plain", "unlock+open Plain"}));

    // Folders changed from outside: new ones are encrypted, missing ones restored.
    list.recordsUpdated({FolderFaceRef{plain}.folder().as<QVRecord>(), folder("Incoming", 5)});
    EXPECT_EQ(tasks(), (std::vector<std::string>{"decrypt WithOpen", "encrypt Incoming", "lock Plain",
                                                 "unlock+open Plain"}));
}

} // namespace
} // namespace qv
