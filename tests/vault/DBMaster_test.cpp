// The master file and Folder Sets: what a password finds, what it must not
// find, and what reaches the disk.
#include <gtest/gtest.h>

#include <filesystem>

#include "vault/Locations.h"
#include "support/TempHome.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/LogCapture.h"
#include "vault/DBMaster.h"
#include "vault/KeyedArchive.h"
#include "vault/QVCrypto.h"
#include "vault/QVRecord.h"

namespace fs = std::filesystem;
using namespace qv;

namespace {

QVRecordRef makeFolder(const std::string& mountpoint, const std::string& imagePassword,
                       const std::string& setPassword) {
    QVRecordRef folder = QVFolderCreate(QVStorageCreate("Default", URLValue{defaultDiskImageLocationURL()}),
                                        URLValue{mountpoint});
    QVRecordRef diskinfo = QVRecordForProtocol(DiskInfo);
    diskinfo->setValueForKey(Value::url(defaultDiskImageLocationURL() + "/x.sparsebundle"), "url");
    folder->setValueForKey(Value(diskinfo), "diskinfo");
    folder->setValueForKey(Value(*QVCrypto::encryptString(imagePassword, setPassword)), "password");
    return folder;
}

// A new set with `folders`, saved to the master file.
DBSubdbRef createSet(const DBMasterRef& master, const std::string& password,
                     const std::vector<QVRecordRef>& folders = {}) {
    DBSubdbRef subdb = DBSubdb::subdbWithFolders(folders, password);
    QVError error;
    EXPECT_TRUE(master->addSubDB(subdb, true, &error)) << error.description;
    EXPECT_TRUE(subdb->save(&error)) << error.description;
    return subdb;
}

std::string imagePasswordOf(const QVRecordRef& folder, const std::string& setPassword) {
    return QVCrypto::decryptStringWithString(folder->valueForKey("password").toData(), setPassword).value_or("");
}

Bytes fileBytes(const std::string& path) { return QVReadFile(path, nullptr).value_or(Bytes{}); }

DBMasterRef open() { return DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr); }

} // namespace

TEST(DBMaster, APasswordOpensItsOwnSetOnlyAndAWrongOneLeavesNoTrace) {
    test::TempHome home;
    DBMasterRef master = open();
    EXPECT_FALSE(fs::exists(quillvaneURL(0))) << "nothing on disk before the first save";
    createSet(master, "alpha", {makeFolder("/home/u/Secret", "image-pass-1", "alpha")});
    createSet(master, "bravo", {makeFolder("/home/u/Other", "image-pass-2", "bravo")});

    DBMasterRef reopened = open();
    ASSERT_TRUE(reopened);
    EXPECT_EQ(reopened->subDBCount(), 2u);
    QVError error;
    DBSubdbRef alpha = reopened->getSubDBWithPassword("alpha", &error);
    ASSERT_TRUE(alpha && alpha->folders().size() == 1u) << error.description;
    EXPECT_EQ(alpha->folders()[0]->valueForKey("mountpoint").toURLPath(), "/home/u/Secret");
    EXPECT_EQ(imagePasswordOf(alpha->folders()[0], "alpha"), "image-pass-1");

    // A wrong password: null, the error out-parameter untouched, nothing logged.
    QVError untouched{"sentinel", 42, "left alone"};
    {
        test::LogCapture log;
        EXPECT_FALSE(reopened->getSubDBWithPassword("alpha ", &untouched));
        EXPECT_FALSE(reopened->getSubDBWithPassword("", &untouched));
        EXPECT_TRUE(log.lines.empty());
    }
    EXPECT_EQ(untouched.code, 42);

    // Two gets with one password are independent copies.
    reopened->getSubDBWithPassword("alpha", nullptr)->removeFolderWithMountpoint("/home/u/Secret");
    EXPECT_EQ(alpha->folders().size(), 1u);

    // Adding a set under a password in use replaces the old one.
    createSet(reopened, "alpha");
    EXPECT_EQ(reopened->subDBCount(), 2u);
    EXPECT_TRUE(reopened->getSubDBWithPassword("alpha", nullptr)->folders().empty());
}

TEST(DBMaster, LookupKeysShareOnlyTheHeaderAndBlobsChangeAtEverySave) {
    test::TempHome home;
    DBMasterRef master = open();
    DBSubdbRef a = createSet(master, "alpha");
    DBSubdbRef b = createSet(master, "bravo");
    EXPECT_TRUE(std::equal(a->lookup().begin(), a->lookup().begin() + 64, b->lookup().begin()));
    EXPECT_NE(a->lookup(), b->lookup());

    // The blob of a set never shares its salt with the lookup key.
    const Bytes blob1 = QVDictGet(*master->masterdb()->at(QVMDBSubdbsKey).toDict(), a->lookup()).toData();
    ASSERT_TRUE(a->save(nullptr));
    const Bytes blob2 = QVDictGet(*master->masterdb()->at(QVMDBSubdbsKey).toDict(), a->lookup()).toData();
    EXPECT_NE(blob1, blob2);
    EXPECT_FALSE(std::equal(blob1.begin() + 16, blob1.begin() + 48, a->lookup().begin() + 16));

    // A blob that does not decrypt is an error, not a wrong password.
    (*master->masterdb()->at(QVMDBSubdbsKey).toDict())[a->lookup()] = Value(Bytes(300, 7));
    QVError error;
    EXPECT_FALSE(master->getSubDBWithPassword("alpha", &error));
    EXPECT_EQ(error.code, 1001);
    EXPECT_EQ(error.description, "Internal error decrypting database, please see system log for details.");
}

TEST(DBMaster, ChangingThePasswordRekeysFoldersAndOrphansTheOldOne) {
    test::TempHome home;
    DBMasterRef master = open();
    createSet(master, "old pass", {makeFolder("/home/u/A", "img-A", "old pass"),
                                   makeFolder("/home/u/B", "img-B", "old pass")});
    createSet(master, "unrelated");
    DBSubdbRef set = master->getSubDBWithPassword("old pass", nullptr);
    QVError error;
    ASSERT_TRUE(master->changePasswordOnSubdb(set, "new pass ünïcødé", &error)) << error.description;

    DBMasterRef reopened = open();
    EXPECT_FALSE(reopened->getSubDBWithPassword("old pass", &error));
    DBSubdbRef renamed = reopened->getSubDBWithPassword("new pass ünïcødé", &error);
    ASSERT_TRUE(renamed);
    ASSERT_EQ(renamed->folders().size(), 2u);
    EXPECT_EQ(imagePasswordOf(renamed->folders()[1], "new pass ünïcødé"), "img-B");
    EXPECT_EQ(imagePasswordOf(renamed->folders()[0], "old pass"), "") << "the old wrapping is gone";
    EXPECT_TRUE(reopened->getSubDBWithPassword("unrelated", nullptr));
}

TEST(DBMaster, ImagesUnderThePreviousDataFolderAreFoundInTheNewOneAfterLoading) {
    test::TempHome home;
    DBMasterRef master = open();
    QVRecordRef folder = makeFolder("/home/u/Old", "x", "pw");
    folder->setValueForKeyPath(Value::url(oldAppSupURL() + "/Data/ABC.sparsebundle"), "diskinfo.url");
    createSet(master, "pw", {folder});
    const auto loaded = master->getSubDBWithPassword("pw", nullptr)->folders()[0];
    EXPECT_EQ(loaded->valueForKeyPath("diskinfo.url").toURLPath(), ourAppSupURL() + "/Data/ABC.sparsebundle");
}

TEST(DBMaster, DamagedFilesAndFailedWritesLeaveTheFileAsItWas) {
    test::TempHome home;
    DBMasterRef master = open();
    createSet(master, "pw", {makeFolder("/home/u/A", "x", "pw")});
    const Bytes good = fileBytes(quillvaneURL(0));
    ASSERT_GT(good.size(), 600u);
    QVError error;
    EXPECT_FALSE(master->archiveMasterDBToURL(quillvaneURL(0) + "/not/a/dir", &error));
    EXPECT_EQ(error.description, "Failed to archive database");
    EXPECT_EQ(fileBytes(quillvaneURL(0)), good);

    auto expectRefused = [&](const Bytes& content, const std::string& what) {
        ASSERT_TRUE(QVWriteFileAtomically(quillvaneURL(0), content, nullptr));
        QVError error;
        EXPECT_FALSE(DBMaster::initWithMasterDBURL(quillvaneURL(0), false, &error)) << what;
        EXPECT_EQ(error.description, "Failed to unarchive database") << what;
        EXPECT_EQ(fileBytes(quillvaneURL(0)), content) << what << ": the file must stay as it was";
    };
    expectRefused(Bytes(good.begin(), good.begin() + good.size() / 2), "truncated");
    Bytes flipped = good;
    for (size_t i = 40; i < flipped.size(); i += 97) flipped[i] ^= 0x5A;
    expectRefused(flipped, "corrupted");
    // Well-formed archives of the wrong shape.
    auto archiveOf = [](const Value& root) { return *archivedDataWithRootObject(root); };
    expectRefused(archiveOf(Value::newArray()), "root is not a dictionary");
    expectRefused(archiveOf(Value::newDict({{QVMDBSubdbsKey, Value::newDict({{"text key", Value(1)}})}})),
                  "mistyped blob");
}

TEST(DBMaster, TheFrozenVersion2DatabaseKeepsOpening) {
    test::TempHome home;
    QVError error;
    DBMasterRef master = DBMaster::initWithMasterDBURL(std::string(QV_FIXTURES_DIR) + "/database3-v2", false, &error);
    ASSERT_TRUE(master) << error.description;
    EXPECT_EQ(master->version(), 2);
    EXPECT_EQ(master->subDBCount(), 2u);
    DBSubdbRef set = master->getSubDBWithPassword("fixture password", &error);
    ASSERT_TRUE(set) << error.description;
    ASSERT_EQ(set->folders().size(), 1u);
    EXPECT_EQ(set->folders()[0]->valueForKey("mountpoint").toURLPath(), "/home/user/Private Stuff");
    EXPECT_EQ(imagePasswordOf(set->folders()[0], "fixture password"), "fixture image password");
    EXPECT_TRUE(master->getSubDBWithPassword("second set", nullptr));
}

// The set keeps its password masked and hands it out for one callback only.
TEST(DBSubdb, HandsThePasswordOutExactlyAndWipesWhatTheCallbackKept) {
    auto set = DBSubdb::subdbWithFolders({}, "pässwörd ✓ 密码");
    std::string seen;
    set->withPassword([&](std::string& p) { seen = p; });
    EXPECT_EQ(seen, "pässwörd ✓ 密码");
    std::shared_ptr<std::string> kept;
    set->withPasswordBuffer([&](const std::shared_ptr<std::string>& p) { kept = p; });
    EXPECT_TRUE(kept && kept->size() == seen.size() && *kept != seen);
}
