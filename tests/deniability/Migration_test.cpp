// The upgrade without images: who needs it, what it adds, that the master file
// is written once and only when it succeeds, and what a leftover note costs.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "deniability/FakeImageNote.h"
#include "deniability/MigrationTestSupport.h"
#include "support/TempHome.h"
#include "toolkit/AtomicFile.h"
#include "vault/Locations.h"
#include "vault/SetPadding.h"
#include "vault/UserDefaults.h"

namespace fs = std::filesystem;
using namespace qv;
using namespace qv::test;

namespace {

DBMasterRef open() { return DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr); }

// A saved database with `n` sets, the first under "real", at `version`.
DBMasterRef database(size_t n, int32_t version) {
    DBMasterRef master = open();
    for (size_t i = 0; i < n; ++i) {
        auto set = DBSubdb::subdbWithFolders({}, i == 0 ? "real" : "set " + std::to_string(i));
        EXPECT_TRUE(master->addSubDB(set, true, nullptr));
    }
    master->setVersion(version);
    EXPECT_TRUE(master->archiveMasterDBToURL(quillvaneURL(0), nullptr));
    return open();
}

Bytes fileBytes() { return QVReadFile(quillvaneURL(0), nullptr).value_or(Bytes{}); }

} // namespace

TEST(MigrationTask, WhoNeedsTheUpgrade) {
    TempHome home;
    EXPECT_TRUE(MigrationTask::needsVersion2Migration(database(0, 2)));
    EXPECT_TRUE(MigrationTask::needsVersion2Migration(database(1, 2)));
    EXPECT_FALSE(MigrationTask::needsVersion2Migration(database(2, 2)));
    EXPECT_TRUE(MigrationTask::needsVersion2Migration(database(30, 1)));
    EXPECT_FALSE(MigrationTask::needsVersion2Migration(database(1, 3))) << "refused at start, not upgraded";
    QVUserDefaults::standardUserDefaults().setObject("skipmigrationTov3", Value(true));
    EXPECT_FALSE(MigrationTask::needsMigration(database(1, 1)));
    EXPECT_FALSE(MigrationTask::needsMigration(database(1, 2)));
    QVUserDefaults::standardUserDefaults().removeObjectForKey("skipmigrationTov3");
}

TEST(MigrationTask, ANewDatabaseGetsFiveToFifteenSetsThatLookLikeTheRealOne) {
    TempHome home;
    DBMasterRef master = database(1, 2);
    RecordingView view;
    auto assistant = runUpgrade(master, view);
    ASSERT_TRUE(view.ended) << view.fatal;
    EXPECT_FALSE(view.endError) << view.endError->description;
    EXPECT_FALSE(view.wentBack);
    EXPECT_TRUE(view.nextEnabled);
    EXPECT_EQ(view.progress.front(), 0);
    EXPECT_NEAR(view.progress.back(), 100, 1e-6);
    EXPECT_EQ(view.labels.back().first, "Database upgrade complete!");
    EXPECT_EQ(fs::exists(quillvaneURL(1)), true) << "a backup before anything";

    DBMasterRef after = open();
    EXPECT_EQ(after->version(), 2);
    EXPECT_GE(after->subDBCount(), 5u);
    EXPECT_LE(after->subDBCount(), 15u);
    EXPECT_TRUE(after->getSubDBWithPassword("real", nullptr));
    size_t length = 0;
    for (const auto& [key, blob] : *after->masterdb()->at(QVMDBSubdbsKey).toDict()) {
        if (length == 0) length = blob.toData().size();
        EXPECT_EQ(blob.toData().size(), length) << "real and fake blobs alike";
    }
    const auto logNs = blobLogNs(after);
    EXPECT_EQ(std::count(logNs.begin(), logNs.end(), logNs.front()), long(logNs.size()));
    EXPECT_FALSE(fs::exists(fakeImagesNoteURL()));
}

TEST(MigrationTask, AnOldFileWithManySetsGetsOneMore) {
    TempHome home;
    DBMasterRef master = database(20, 1);
    RecordingView view;
    runUpgrade(master, view);
    ASSERT_TRUE(view.ended && !view.endError);
    DBMasterRef after = open();
    EXPECT_EQ(after->subDBCount(), 21u);
    EXPECT_EQ(after->version(), 2);
}

TEST(MigrationTask, ACancelledUpgradeLeavesTheFileAsItWasAndGoesBack) {
    TempHome home;
    DBMasterRef master = database(1, 2);
    const Bytes before = fileBytes();
    RecordingView view;
    auto assistant = runUpgrade(master, view, {}, true);
    ASSERT_TRUE(view.ended);
    ASSERT_TRUE(view.endError);
    EXPECT_EQ(view.endError->code, QVErrorCancelled);
    EXPECT_TRUE(view.endCancelled);
    EXPECT_TRUE(view.wentBack);
    EXPECT_FALSE(view.nextEnabled);
    EXPECT_TRUE(view.sheets.empty()) << "a cancel is no error to show";
    EXPECT_EQ(fileBytes(), before);
    EXPECT_EQ(assistant->master()->subDBCount(), 1u) << "the sets made in memory went with the reload";
}

TEST(MigrationTask, CleanupDeletesOnlyImagesAndForgetsWhatIsGone) {
    TempHome home;
    const std::string data = defaultDiskImageLocationURL();
    fs::create_directories(data + "/A.sparsebundle/bands");
    fs::create_directories(data + "/not-an-image");
    FakeImageNote::writeNote({data + "/A.sparsebundle", data + "/gone.sparsebundle", data + "/not-an-image"});
    EXPECT_EQ(MigrationTask::fakeFolderCleanup(), 1u);
    EXPECT_FALSE(fs::exists(data + "/A.sparsebundle"));
    EXPECT_TRUE(fs::exists(data + "/not-an-image"));
    EXPECT_EQ(FakeImageNote::readNote(), std::vector<std::string>{data + "/not-an-image"}) << "kept, not deleted";

    FakeImageNote::writeNote({data + "/gone.sparsebundle"});
    MigrationTask::fakeFolderCleanup();
    EXPECT_FALSE(fs::exists(fakeImagesNoteURL())) << "an emptied note goes";
}
