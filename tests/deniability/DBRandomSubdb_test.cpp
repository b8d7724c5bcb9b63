// Fake Folder Sets: made like real ones, side by side, all under the one set of
// parameters handed in; the folders that get an image have password containers
// no other folder shares; a set made ready is found by its password once stored.
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "deniability/DBRandomSubdb.h"
#include "support/TempHome.h"
#include "vault/Locations.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"
#include "vault/SetPadding.h"

using namespace qv;

namespace {

const QVScryptParams kMeasured{11, 8, 1}; // unlike the test switch's, so it shows where it was used

DBMasterRef masterWithOneSet() {
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    auto real = DBSubdb::subdbWithFolders({}, "the real one");
    EXPECT_TRUE(master->addSubDB(real, true, nullptr) && real->save(nullptr));
    return master;
}

std::string passwordOf(const DBSubdbRef& set) {
    std::string out;
    set->withPassword([&](std::string& p) { out = p; });
    return out;
}

} // namespace

TEST(DBRandomSubdb, PathsAndPlansStayInTheirRanges) {
    test::TempHome home;
    for (int i = 0; i < 50; ++i) {
        const std::string path = DBRandomSubdb::randomFolderURL();
        ASSERT_EQ(path.rfind(documentsURL() + "/", 0), 0u) << path;
        const std::string name = path.substr(documentsURL().size() + 1);
        EXPECT_TRUE(name.size() >= 4 && name.size() <= 30) << name;
        for (char c : name) EXPECT_TRUE(c >= 65 && c <= 122) << name;
    }
    auto plans = DBRandomSubdb::plansForSets(15, 10);
    size_t images = 0, folders = 0;
    bool runOut = false;
    for (const auto& plan : plans) {
        EXPECT_TRUE(plan.folders >= 2 && plan.folders <= 10);
        EXPECT_LE(plan.imagedFolders, plan.folders);
        if (runOut) EXPECT_EQ(plan.imagedFolders, 0u) << "images go to the first sets, in order";
        if (plan.imagedFolders < plan.folders) runOut = true;
        images += plan.imagedFolders;
        folders += plan.folders;
    }
    EXPECT_EQ(images, std::min<size_t>(10, folders));
    EXPECT_TRUE(DBRandomSubdb::plansForSets(0, 3).empty());
}

TEST(DBRandomSubdb, ImagedFoldersHaveTheirOwnContainersAndEverythingCarriesTheMeasuredParameters) {
    test::TempHome home;
    DBMasterRef master = masterWithOneSet();
    auto made = DBRandomSubdb::randomSubDB(master, {6, 2}, kMeasured);
    ASSERT_TRUE(made);
    const auto folders = made->subdb->folders();
    ASSERT_EQ(folders.size(), 6u);
    std::set<Bytes> containers;
    for (size_t i = 0; i < folders.size(); ++i) {
        FolderRef f{folders[i]};
        EXPECT_EQ(f.position().toInt(), int64_t(i));
        EXPECT_TRUE(f.encrypted().toBool());
        EXPECT_EQ(f.folderSize().toInt(), DBRandomSubdb::kFakeFolderSize);
        EXPECT_EQ(DiskInfoRef{f.diskinfo().as<QVRecord>()}.url().toURLPath(),
                  defaultDiskImageLocationURL() + "/" + f.uuid().toString() + ".sparsebundle");
        const Bytes container = f.password().toData();
        EXPECT_EQ(container[7], kMeasured.logN);
        auto image = QVCrypto::decryptStringWithString(container, passwordOf(made->subdb));
        ASSERT_TRUE(image);
        EXPECT_TRUE(image->size() >= 30 && image->size() <= 40);
        containers.insert(container);
    }
    EXPECT_EQ(containers.size(), 3u) << "two of their own and one shared by the other four";
    EXPECT_EQ(made->blob[7], kMeasured.logN);
    EXPECT_EQ(made->blob.size(), QVSetArchiveBucket + 128);

    ASSERT_TRUE(master->addPreparedSubDB(made->subdb, made->lookup, made->blob, nullptr));
    EXPECT_FALSE(master->addPreparedSubDB(made->subdb, made->lookup, made->blob, nullptr)) << "never overwritten";
    DBSubdbRef found = master->getSubDBWithPassword(passwordOf(made->subdb), nullptr);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->folders().size(), 6u);
}

TEST(DBRandomSubdb, SetsMadeSideBySideComeBackInPlanOrderWithOneCallbackEach) {
    test::TempHome home;
    DBMasterRef master = masterWithOneSet();
    std::vector<RandomSubdbPlan> plans{{2, 2}, {10, 3}, {3, 0}, {7, 0}, {5, 0}, {4, 0}};
    std::atomic<int> calls{0};
    auto sets = DBRandomSubdb::arrayWithRandomSubdbs(
        master, plans, kMeasured, [&] { ++calls; }, 3);
    ASSERT_EQ(sets.size(), plans.size());
    EXPECT_EQ(calls.load(), 6);
    std::set<Bytes> lookups;
    for (size_t i = 0; i < sets.size(); ++i) {
        EXPECT_EQ(sets[i].subdb->folders().size(), plans[i].folders);
        EXPECT_EQ(sets[i].lookup.size(), 574u);
        lookups.insert(sets[i].lookup);
    }
    EXPECT_EQ(lookups.size(), sets.size());
}
