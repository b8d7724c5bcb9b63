// The folder list as a model: what loading, removing, reordering, searching and
// the lock switch do to the faces, the Folder Set and the task queue.
#include "app/FolderList.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "disk/FolderState.h"
#include "disk/StorageLocations.h"
#include "support/QtApp.h"
#include "support/OperationLog.h"
#include "support/TempHome.h"
#include "tasks/BaseFolderTask.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

namespace qv {
namespace {

namespace fs = std::filesystem;

std::string nameOf(const QVRecordRef& face) {
    return fs::path(FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.mountpoint().toURLPath()).filename();
}

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
            .import = [this](const QVRecordRef& f) { return recording("import", f); },
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
    OperationRef recording(const std::string& kind, const QVRecordRef& face) { return log.note(kind + " " + nameOf(face)); }
    std::vector<std::string> tasks() { return log.sorted(queue); }
    QVRecordRef folder(const std::string& name, int64_t position, bool makeDir = true) {
        if (makeDir) fs::create_directories(home.root() + "/" + name);
        QVRecordRef f = QVFolderCreate(storage, URLValue{home.root() + "/" + name});
        FolderRef{f}.setPosition(Value(position));
        return f;
    }
    std::shared_ptr<DBSubdb> load(const std::vector<QVRecordRef>& folders) {
        auto subdb = DBSubdb::subdbWithFolders(folders, "pw");
        list.loadSubdb(subdb);
        return subdb;
    }
    std::string names(const std::vector<QVRecordRef>& faces) {
        std::string out;
        for (const auto& face : faces) out += nameOf(face) + " ";
        return out;
    }

    test::TempHome home;
    FolderList& list = FolderList::singleton();
    OperationQueue queue;
    QVRecordRef storage;
    test::OperationLog log;
};

TEST_F(FolderListTest, LoadingSortsByPositionAndRemovingLeavesTheSet) {
    auto subdb = load({folder("C", 2), folder("A", 0), folder("Gone", 1, false), folder("B", 0)});
    EXPECT_EQ(names(list.faces()), "A B Gone C ") << "ties keep the set's order";
    EXPECT_TRUE(FolderFaceRef{list.faces()[0]}.locked().toBool()) << "a plain directory is a locked folder";
    EXPECT_FALSE(list.folderAction(list.faces()[0])) << "an idle face has nothing to cancel";

    int emptied = 0;
    list.setEmptyListHandler([&] { ++emptied; });
    while (!list.faces().empty()) list.removeFolderFace(list.faces()[0]);
    EXPECT_TRUE(subdb->folders().empty());
    EXPECT_TRUE(list.showsEmptyList());
    EXPECT_EQ(emptied, 1);
}

TEST_F(FolderListTest, SearchFiltersByNameIgnoringCaseAndANewFolderClearsIt) {
    load({folder("Photos", 0), folder("Taxes 2026", 1), folder("photo-backup", 2)});
    list.search("PHOTO");
    EXPECT_EQ(names(list.arrangedFaces()), "Photos photo-backup ");
    ASSERT_TRUE(list.encryptFolder(folder("New", 0)));
    EXPECT_EQ(list.searchText(), "");
    const QVRecordRef added = FolderFaceRef{list.faces().back()}.folder().as<QVRecord>();
    EXPECT_EQ(FolderRef{added}.position().toInt(), 3);
    EXPECT_EQ(QVRecordGetSubdb(added), list.subdb());
    EXPECT_EQ(tasks(), std::vector<std::string>{"encrypt New"});
}

TEST_F(FolderListTest, TheLockSwitchQueuesTheTaskForTheRealStateAndShiftReversesOpening) {
    QVRecordRef withOpen = folder("WithOpen", 1);
    QVRecordRef action = QVRecordForProtocol(FolderAction);
    FolderActionRef{action}.setAction(Value(int64_t(1)));
    FolderRef{withOpen}.setUnlockActions(Value::newArray({Value(action)}));
    load({folder("Plain", 0), withOpen});
    QVRecordRef plain = list.faces()[0];

    QVUserDefaults::standardUserDefaults().setObject("QVOpenFolderAfterUnlock", Value(true));
    EXPECT_FALSE(list.shouldOpenFolderInFinder(list.faces()[1], false)) << "an Open action opens instead";

    // The switch's binding has flipped `locked` already: a locked folder reads unlocked.
    FolderFaceRef{plain}.setLocked(Value(false));
    EXPECT_TRUE(list.toggleFolderLockOfFolderFace(plain, true));
    EXPECT_TRUE(FolderFaceRef{plain}.locked().toBool()) << "the real state until the task ends";
    FolderFaceRef{plain}.setLocked(Value(true));
    EXPECT_TRUE(list.toggleFolderLockOfFolderFace(plain));
    EXPECT_EQ(tasks(), (std::vector<std::string>{"lock Plain", "unlock Plain"}));

    // Folders changed from outside: new ones are encrypted, missing ones restored.
    list.recordsUpdated({FolderFaceRef{plain}.folder().as<QVRecord>(), folder("Incoming", 5)});
    EXPECT_EQ(tasks(), (std::vector<std::string>{"decrypt WithOpen", "encrypt Incoming", "lock Plain", "unlock Plain"}));
}

TEST_F(FolderListTest, ListenersHearEveryChangeOfTheRowsAndRestoreNeedsItsMaker) {
    int heard = 0;
    const size_t id = list.addFacesListener([&] { ++heard; });
    load({folder("A", 0), folder("B", 1), folder("C", 2)});
    list.search("b");
    list.selectRow(0);
    EXPECT_EQ(nameOf(list.selectedFolderFace()), "B") << "rows are the arranged ones";
    list.selectRow(1);
    EXPECT_FALSE(list.selectedRow()) << "a row past the end selects nothing";
    list.search("");
    list.acceptDrop({0}, 3);
    list.removeFolderFace(list.faces()[0]);
    EXPECT_EQ(heard, 5);

    list.removeFacesListener(id);
    list.search("x");
    EXPECT_EQ(heard, 5) << "a removed listener hears nothing";

    EXPECT_NE(list.restoreFolderFace(list.faces()[0]), nullptr);
    EXPECT_EQ(tasks(), std::vector<std::string>{"decrypt C"});
    list.setTaskMakers({});
    EXPECT_FALSE(list.canDecrypt());
    EXPECT_EQ(list.restoreFolderFace(list.faces()[0]), nullptr);
}

TEST_F(FolderListTest, AnImportedImageGetsAFolderOfItsOwnAtTheEndAndItsTask) {
    auto subdb = load({folder("Kept", 0)});
    list.search("kept");
    // What the import screen hands over: the image where it lies, its settings,
    // its password wrapped under the set's, the mount point, locked.
    QVRecordRef prepared = folder("Archive", 0);
    QVRecordRef info = QVDiskInfoForFolder(prepared);
    DiskInfoRef{info}.setUrl(Value(URLValue{home.root() + "/Old/Archive.sparsebundle"}));
    DiskInfoRef{info}.setFilesystem(Value("HFS+"));
    DiskInfoRef{info}.setEncryption(Value("AES"));
    FolderRef{prepared}.setDiskinfo(Value(info));
    FolderRef{prepared}.setEncrypted(Value(true));
    FolderRef{prepared}.setPassword(Value(Bytes{1, 2, 3}));
    QVRecordRef face = QVFolderFaceCreate(prepared);
    FolderFaceRef{face}.setLocked(Value(true));

    ASSERT_TRUE(list.importSparseBundle(face));
    EXPECT_EQ(tasks(), std::vector<std::string>{"import Archive"});
    ASSERT_EQ(list.faces().size(), 2u);
    const QVRecordRef imported = FolderFaceRef{list.faces().back()}.folder().as<QVRecord>();
    EXPECT_NE(imported, prepared) << "a folder of its own";
    EXPECT_NE(FolderRef{imported}.uuid().toString(), FolderRef{prepared}.uuid().toString());
    DiskInfoRef diskinfo{FolderRef{imported}.diskinfo().as<QVRecord>()};
    EXPECT_EQ(diskinfo.url().toURLPath(), home.root() + "/Old/Archive.sparsebundle") << "the image stays where it lies";
    EXPECT_EQ(diskinfo.filesystem().toString(), "HFS+");
    EXPECT_EQ(diskinfo.encryption().toString(), "AES");
    EXPECT_EQ(FolderRef{imported}.password().toData(), (Bytes{1, 2, 3}));
    EXPECT_TRUE(FolderRef{imported}.encrypted().toBool());
    EXPECT_EQ(FolderRef{imported}.mountpoint().toURLPath(), home.root() + "/Archive");
    EXPECT_TRUE(FolderFaceRef{list.faces().back()}.locked().toBool());
    EXPECT_EQ(QVRecordGetSubdb(imported), subdb);
    EXPECT_EQ(list.searchText(), "") << "a new row clears the filter";
    EXPECT_EQ(subdb->folders().size(), 1u) << "the task adds it to the set, not the list";
}

} // namespace
} // namespace qv
