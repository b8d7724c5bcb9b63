// The master file and Folder Sets: what a password finds, what it must not
// find, and what reaches the disk.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "disk/Locations.h"
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
    diskinfo->setValueForKey(Value::url(defaultDiskImageLocationURL() + "/" +
                                         folder->valueForKey("uuid").toString() + ".sparsebundle"),
                             "url");
    folder->setValueForKey(Value(diskinfo), "diskinfo");
    folder->setValueForKey(Value(*QVCrypto::encryptString(imagePassword, setPassword)), "password");
    folder->setValueForKey(Value(true), "encrypted");
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

} // namespace

TEST(DBMaster, ANewDatabaseExistsOnlyInMemoryUntilTheFirstSave) {
    test::TempHome home;
    test::LogCapture log;
    QVError error;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, &error);
    ASSERT_TRUE(master);
    EXPECT_EQ(master->version(), 2);
    EXPECT_GT(master->creationDate(), 1.7e9);
    EXPECT_EQ(master->subDBCount(), 0u);
    EXPECT_EQ(master->masterdb()->size(), 2u) << "only the version and the creation time";
    EXPECT_FALSE(fs::exists(quillvaneURL(0)));
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0].rfind("WARN (", 0), 0u);
    EXPECT_NE(log.lines[0].find("not reachable '" + quillvaneURL(0) + "'"), std::string::npos);

    // Asking whether a password is free on a database without sets says no, quietly to the caller.
    EXPECT_FALSE(master->hasSubDbWithPassword("anything"));
}

TEST(DBMaster, APasswordOpensItsOwnSetOnlyAndAWrongOneLeavesNoTrace) {
    test::TempHome home;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    createSet(master, "alpha", {makeFolder("/home/u/Secret", "image-pass-1", "alpha")});
    createSet(master, "bravo", {makeFolder("/home/u/Other", "image-pass-2", "bravo")});
    EXPECT_EQ(master->subDBCount(), 2u);

    // Reopen from disk: everything must come from the file.
    DBMasterRef reopened = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    ASSERT_TRUE(reopened);
    EXPECT_EQ(reopened->subDBCount(), 2u);
    EXPECT_DOUBLE_EQ(reopened->creationDate(), master->creationDate());

    QVError error;
    DBSubdbRef alpha = reopened->getSubDBWithPassword("alpha", &error);
    ASSERT_TRUE(alpha) << error.description;
    ASSERT_EQ(alpha->folders().size(), 1u);
    QVRecordRef folder = alpha->folders()[0];
    EXPECT_EQ(folder->valueForKey("mountpoint").toURLPath(), "/home/u/Secret");
    EXPECT_EQ(imagePasswordOf(folder, "alpha"), "image-pass-1");
    EXPECT_EQ(QVRecordGetSubdb(folder), alpha) << "each folder points back at its set";
    EXPECT_EQ(alpha->clientCount(), 1);

    // A wrong password: null, the error out-parameter untouched, nothing logged.
    QVError untouched{"sentinel", 42, "left alone"};
    {
        test::LogCapture log;
        EXPECT_FALSE(reopened->getSubDBWithPassword("alpha ", &untouched));
        EXPECT_FALSE(reopened->getSubDBWithPassword("", &untouched));
        EXPECT_TRUE(log.lines.empty());
    }
    EXPECT_EQ(untouched.domain, "sentinel");
    EXPECT_EQ(untouched.code, 42);

    // Two gets with one password are two independent copies.
    DBSubdbRef again = reopened->getSubDBWithPassword("alpha", nullptr);
    ASSERT_TRUE(again);
    EXPECT_NE(again, alpha);
    EXPECT_NE(again->folders()[0], alpha->folders()[0]);
    again->removeFolderWithMountpoint("/home/u/Secret");
    EXPECT_EQ(alpha->folders().size(), 1u);
    reopened->returnSubDB(again);
    reopened->returnSubDB(alpha);
    EXPECT_EQ(alpha->clientCount(), 0);
}

TEST(DBMaster, LookupKeysAreFixedPerPasswordAndShareOnlyTheHeader) {
    test::TempHome home;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    DBSubdbRef a = createSet(master, "alpha");
    DBSubdbRef b = createSet(master, "bravo");
    ASSERT_EQ(a->lookup().size(), 574u);
    ASSERT_EQ(b->lookup().size(), 574u);
    EXPECT_TRUE(std::equal(a->lookup().begin(), a->lookup().begin() + 64, b->lookup().begin()));
    EXPECT_NE(a->lookup(), b->lookup());
    DBSubdbRef a2 = master->getSubDBWithPassword("alpha", nullptr);
    ASSERT_TRUE(a2);
    EXPECT_EQ(a2->lookup(), a->lookup());

    // The blob of a set never shares its salt with the lookup key, and changes at every save.
    const Bytes blob1 = QVDictGet(*master->masterdb()->at(QVMDBSubdbsKey).toDict(), a->lookup()).toData();
    ASSERT_TRUE(a->save(nullptr));
    const Bytes blob2 = QVDictGet(*master->masterdb()->at(QVMDBSubdbsKey).toDict(), a->lookup()).toData();
    EXPECT_NE(blob1, blob2);
    EXPECT_FALSE(std::equal(blob1.begin() + 16, blob1.begin() + 48, a->lookup().begin() + 16));
}

TEST(DBMaster, ChangingThePasswordRekeysFoldersAndOrphansTheOldOne) {
    test::TempHome home;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    createSet(master, "old pass", {makeFolder("/home/u/A", "img-A", "old pass"),
                                   makeFolder("/home/u/B", "img-B", "old pass")});
    createSet(master, "unrelated");
    DBSubdbRef set = master->getSubDBWithPassword("old pass", nullptr);
    ASSERT_TRUE(set);

    QVError error;
    ASSERT_TRUE(master->changePasswordOnSubdb(set, "new pass ünïcødé", &error)) << error.description;
    EXPECT_EQ(master->subDBCount(), 2u);

    DBMasterRef reopened = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    EXPECT_FALSE(reopened->getSubDBWithPassword("old pass", &error));
    DBSubdbRef renamed = reopened->getSubDBWithPassword("new pass ünïcødé", &error);
    ASSERT_TRUE(renamed);
    ASSERT_EQ(renamed->folders().size(), 2u);
    EXPECT_EQ(imagePasswordOf(renamed->folders()[0], "new pass ünïcødé"), "img-A");
    EXPECT_EQ(imagePasswordOf(renamed->folders()[1], "new pass ünïcødé"), "img-B");
    EXPECT_EQ(imagePasswordOf(renamed->folders()[0], "old pass"), "") << "the old wrapping is gone";
    EXPECT_TRUE(reopened->getSubDBWithPassword("unrelated", nullptr));
}

TEST(DBMaster, AddingASetUnderAPasswordInUseReplacesTheOldBlob) {
    test::TempHome home;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    createSet(master, "same", {makeFolder("/home/u/First", "x", "same")});
    createSet(master, "same");
    EXPECT_EQ(master->subDBCount(), 1u);
    DBSubdbRef set = master->getSubDBWithPassword("same", nullptr);
    ASSERT_TRUE(set);
    EXPECT_TRUE(set->folders().empty());
}

TEST(DBMaster, ImagesUnderThePreviousDataFolderAreFoundInTheNewOneAfterLoading) {
    test::TempHome home;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    QVRecordRef folder = makeFolder("/home/u/Old", "x", "pw");
    const std::string oldImage = oldAppSupURL() + "/Data/ABC.sparsebundle";
    folder->setValueForKeyPath(Value::url(oldImage), "diskinfo.url");
    createSet(master, "pw", {folder});
    DBSubdbRef set = master->getSubDBWithPassword("pw", nullptr);
    ASSERT_TRUE(set);
    EXPECT_EQ(set->folders()[0]->valueForKeyPath("diskinfo.url").toURLPath(),
              ourAppSupURL() + "/Data/ABC.sparsebundle");
}

TEST(DBMaster, DamagedFilesGiveAClearErrorAndAreLeftAsTheyWere) {
    test::TempHome home;
    {
        DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
        createSet(master, "pw", {makeFolder("/home/u/A", "x", "pw")});
    }
    const Bytes good = fileBytes(quillvaneURL(0));
    ASSERT_GT(good.size(), 600u);

    auto expectRefused = [&](const Bytes& content, const std::string& what) {
        ASSERT_TRUE(QVWriteFileAtomically(quillvaneURL(0), content, nullptr));
        QVError error;
        EXPECT_FALSE(DBMaster::initWithMasterDBURL(quillvaneURL(0), false, &error)) << what;
        EXPECT_EQ(error.description, "Failed to unarchive database") << what;
        EXPECT_EQ(fileBytes(quillvaneURL(0)), content) << what << ": the file must stay as it was";
    };
    expectRefused(Bytes(good.begin(), good.begin() + good.size() / 2), "truncated");
    expectRefused(Bytes{}, "empty");
    expectRefused(Bytes(1000, 'x'), "garbage");
    Bytes flipped = good;
    for (size_t i = 40; i < flipped.size(); i += 97) flipped[i] ^= 0x5A;
    expectRefused(flipped, "corrupted");

    // Well-formed archives of the wrong shape.
    auto archiveOf = [](const Value& root) { return *archivedDataWithRootObject(root); };
    expectRefused(archiveOf(Value::newArray()), "root is not a dictionary");
    expectRefused(archiveOf(Value::newDict({{QVMDBSubdbsKey, Value("not a dictionary")}})), "mistyped sets");
    expectRefused(archiveOf(Value::newDict({{QVMDBVersionKey, Value("two")}})), "mistyped version");
    expectRefused(archiveOf(Value::newDict({{QVMDBSubdbsKey, Value::newDict({{"text key", Value(1)}})}})),
                  "mistyped blob");

    // An unreadable file (a directory in its place).
    fs::remove(quillvaneURL(0));
    fs::create_directory(quillvaneURL(0));
    QVError error;
    EXPECT_FALSE(DBMaster::initWithMasterDBURL(quillvaneURL(0), false, &error));
    EXPECT_EQ(error.description, "Failed to unarchive database");
}

TEST(DBMaster, ABlobThatDoesNotDecryptIsAnErrorNotAWrongPassword) {
    test::TempHome home;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    DBSubdbRef set = createSet(master, "pw");
    (*master->masterdb()->at(QVMDBSubdbsKey).toDict())[set->lookup()] = Value(Bytes(300, 7));
    QVError error;
    EXPECT_FALSE(master->getSubDBWithPassword("pw", &error));
    EXPECT_EQ(error.code, 1001);
    EXPECT_EQ(error.description, "Internal error decrypting database, please see system log for details.");
}

TEST(DBMaster, AFailedWriteKeepsTheFileOnDisk) {
    test::TempHome home;
    DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(0), false, nullptr);
    DBSubdbRef set = createSet(master, "pw");
    const Bytes before = fileBytes(quillvaneURL(0));
    QVError error;
    EXPECT_FALSE(master->archiveMasterDBToURL(quillvaneURL(0) + "/not/a/dir", &error));
    EXPECT_EQ(error.description, "Failed to archive database");
    EXPECT_EQ(fileBytes(quillvaneURL(0)), before);
}

TEST(DBMaster, TheFrozenVersion2DatabaseKeepsOpening) {
    test::TempHome home;
    const std::string path = std::string(QV_FIXTURES_DIR) + "/database3-v2";
    QVError error;
    DBMasterRef master = DBMaster::initWithMasterDBURL(path, false, &error);
    ASSERT_TRUE(master) << error.description;
    EXPECT_EQ(master->version(), 2);
    EXPECT_EQ(master->subDBCount(), 2u);
    DBSubdbRef set = master->getSubDBWithPassword("fixture password", &error);
    ASSERT_TRUE(set) << error.description;
    ASSERT_EQ(set->folders().size(), 1u);
    QVRecordRef folder = set->folders()[0];
    EXPECT_EQ(folder->valueForKey("mountpoint").toURLPath(), "/home/user/Private Stuff");
    EXPECT_EQ(imagePasswordOf(folder, "fixture password"), "fixture image password");
    EXPECT_FALSE(master->getSubDBWithPassword("wrong", nullptr));
    EXPECT_TRUE(master->getSubDBWithPassword("second set", nullptr));
}

// Writes tests/fixtures/database3-v2 once; the file is then frozen. Run with
// --gtest_also_run_disabled_tests --gtest_filter=*MakeDatabaseFixture only when a new format version is added.
TEST(DBMaster, DISABLED_MakeDatabaseFixture) {
    test::TempHome home;
    const std::string path = std::string(QV_FIXTURES_DIR) + "/database3-v2";
    DBMasterRef master = DBMaster::initWithMasterDBURL(path, false, nullptr);
    QVRecordRef folder = makeFolder("/home/user/Private Stuff", "fixture image password", "fixture password");
    createSet(master, "fixture password", {folder});
    createSet(master, "second set");
}
