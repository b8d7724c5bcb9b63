// Folder Set blobs padded to a fixed bucket: their length says nothing about
// the number of folders until a set outgrows the first bucket; the padding is
// never read back into the set, and sets saved before padding existed open.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/TempHome.h"
#include "vault/DBMaster.h"
#include "vault/KeyedArchive.h"
#include "vault/Locations.h"
#include "vault/QVCrypto.h"
#include "vault/QVRecord.h"
#include "vault/SetPadding.h"

using namespace qv;

namespace {

QVRecordRef folderAt(const std::string& path) {
    QVRecordRef folder = QVFolderCreate(QVStorageCreate("Default", URLValue{"/data"}), URLValue{path});
    folder->setValueForKey(Value(QVCrypto::randomDataOfLength(200, 0, 255)), "password");
    return folder;
}

std::vector<QVRecordRef> folders(size_t n, size_t nameLength = 30) {
    std::vector<QVRecordRef> list;
    for (size_t i = 0; i < n; ++i) list.push_back(folderAt("/home/u/" + std::string(nameLength, char('a' + i % 26))));
    return list;
}

size_t blobLength(const DBMasterRef& master, const DBSubdbRef& set) {
    return QVDictGet(*master->masterdb()->at(QVMDBSubdbsKey).toDict(), set->lookup()).toData().size();
}

} // namespace

TEST(SetPadding, ArchivesOfSmallAndLargeSetsFillWholeBucketsAndReadBackWithoutThePadding) {
    for (size_t n : {0u, 1u, 2u, 10u, 40u, 200u}) {
        auto set = DBSubdb::subdbWithFolders(folders(n), "pw");
        auto archive = QVArchivePaddedSet(set->subdb());
        ASSERT_TRUE(archive) << n;
        EXPECT_EQ(archive->size() % QVSetArchiveBucket, 0u) << n << " folders: " << archive->size();
        EXPECT_FALSE(set->subdb()->count(DictKey(QVSDBPaddingKey))) << "the set itself is not changed";
        auto back = unarchiveObjectWithData(*archive, nullptr);
        ASSERT_TRUE(back && back->toDict());
        EXPECT_EQ(QVDictGet(*back->toDict(), QVSDBFoldersKey).toArray()->size(), n);
    }
    EXPECT_EQ(QVArchivePaddedSet(DBSubdb::subdbWithFolders({}, "a")->subdb())->size(),
              QVArchivePaddedSet(DBSubdb::subdbWithFolders(folders(10), "b")->subdb())->size())
        << "an empty set and one of ten folders look alike";
    EXPECT_GT(QVArchivePaddedSet(DBSubdb::subdbWithFolders(folders(200, 200), "c")->subdb())->size(),
              QVSetArchiveBucket)
        << "a very large set takes more buckets";
}

TEST(SetPadding, BlobsKeepTheirLengthAcrossSavesAndUnpaddedSetsStillOpen) {
    test::TempHome home;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    auto empty = DBSubdb::subdbWithFolders({}, "empty");
    auto full = DBSubdb::subdbWithFolders(folders(10), "full");
    ASSERT_TRUE(master->addSubDB(empty, true, nullptr) && empty->save(nullptr));
    ASSERT_TRUE(master->addSubDB(full, true, nullptr) && full->save(nullptr));
    EXPECT_EQ(blobLength(master, empty), blobLength(master, full));

    // Loaded, changed and saved again: the padding read back is dropped, not carried.
    const size_t before = blobLength(master, full);
    for (int round = 0; round < 3; ++round) {
        DBSubdbRef loaded = master->getSubDBWithPassword("full", nullptr);
        ASSERT_TRUE(loaded);
        EXPECT_FALSE(loaded->subdb()->count(DictKey(QVSDBPaddingKey)));
        ASSERT_TRUE(loaded->save(nullptr));
    }
    EXPECT_EQ(blobLength(master, full), before);

    // A blob written before padding existed: the bare archive, encrypted.
    auto bare = archivedDataWithRootObject(Value(DBSubdb::subdbWithFolders(folders(3), "old")->subdb()));
    auto old = DBSubdb::subdbWithFolders({}, "old");
    ASSERT_TRUE(master->addSubDB(old, true, nullptr));
    (*master->masterdb()->at(QVMDBSubdbsKey).toDict())[old->lookup()] =
        Value(*QVCrypto::encryptWithString(*bare, "old"));
    ASSERT_TRUE(master->archiveMasterDBToURL(quillvaneURL(0), nullptr));
    DBMasterRef reopened = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    DBSubdbRef loaded = reopened->getSubDBWithPassword("old", nullptr);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->folders().size(), 3u);
}

TEST(QVCryptoMeasuredOnce, ContainersCarryTheParametersGivenWithAFreshSaltEach) {
    const QVScryptParams given{11, 8, 1};
    auto a = QVCrypto::encryptString("secret", "pw", given);
    auto b = QVCrypto::encryptString("secret", "pw", given);
    ASSERT_TRUE(a && b);
    EXPECT_EQ((*a)[7], 11);
    EXPECT_EQ((*b)[7], 11);
    EXPECT_FALSE(std::equal(a->begin() + 16, a->begin() + 48, b->begin() + 16)) << "salts differ";
    EXPECT_EQ(QVCrypto::decryptStringWithString(*a, "pw"), "secret");

    QVScryptParams measured;
    ASSERT_TRUE(QVCrypto::parametersForFreshContainers(&measured));
    EXPECT_EQ(measured.logN, QVScryptCheapParams.logN) << "the test switch holds for the measurement too";

    EXPECT_EQ(QVScryptParamsFromText(QVScryptParamsText(given))->logN, 11);
    for (const char* bad : {"", "11 8", "0 8 1", "11 0 1", "11 8 1 2", "eleven 8 1", "64 8 1", "11 65536 16384"})
        EXPECT_FALSE(QVScryptParamsFromText(bad)) << bad;
}
