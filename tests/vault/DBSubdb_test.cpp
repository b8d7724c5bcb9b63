// A Folder Set in memory: the masked password and the folder list's rules.
#include <gtest/gtest.h>

#include "vault/DBSubdb.h"
#include "vault/QVRecord.h"

using namespace qv;

namespace {

QVRecordRef folderAt(const std::string& path) {
    return QVFolderCreate(QVStorageCreate("Default", URLValue{"/tmp/images"}), URLValue{path});
}

std::string passwordOf(const DBSubdb& set) {
    std::string out;
    set.withPassword([&](std::string& p) { out = p; });
    return out;
}

} // namespace

TEST(DBSubdb, HandsThePasswordOutExactlyAndWipesWhatTheCallbackKept) {
    auto set = DBSubdb::subdbWithFolders({}, "pässwörd ✓ 密码");
    EXPECT_EQ(passwordOf(*set), "pässwörd ✓ 密码");

    std::shared_ptr<std::string> kept;
    set->withPasswordBuffer([&](const std::shared_ptr<std::string>& p) { kept = p; });
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->size(), std::string("pässwörd ✓ 密码").size());
    EXPECT_NE(*kept, "pässwörd ✓ 密码");
    for (char c : *kept) EXPECT_TRUE(c >= 0x21 && c <= 0x7E) << "random printable characters";

    set->setPassword("");
    EXPECT_EQ(passwordOf(*set), "");
    set->setPassword(std::string("before\0after", 12));
    EXPECT_EQ(passwordOf(*set), "before") << "a password travels as a C string";
    set->setPassword("second");
    EXPECT_EQ(passwordOf(*set), "second");
}

TEST(DBSubdb, AddFolderRefusesADuplicateOnlyWhenEveryFolderHasItsPath) {
    auto set = DBSubdb::subdbWithFolders({}, "pw");
    EXPECT_TRUE(set->addFolder(folderAt("/a")));
    EXPECT_FALSE(set->addFolder(folderAt("/a"))) << "a list of one with the same path";
    EXPECT_TRUE(set->addFolder(folderAt("/b")));
    // With two folders of different paths, a duplicate of the first goes in all the same:
    // the check adds as soon as one folder has another path.
    EXPECT_TRUE(set->addFolder(folderAt("/a")));
    EXPECT_EQ(set->folders().size(), 3u);
    EXPECT_EQ(QVRecordGetSubdb(set->folders()[0]), set);
}

TEST(DBSubdb, FolderListSnapshotsLookupAndRemoval) {
    auto set = DBSubdb::subdbWithFolders({}, "pw");
    auto before = set->folders();
    EXPECT_TRUE(before.empty());
    set->addFolder(folderAt("/x"));
    EXPECT_TRUE(before.empty()) << "a snapshot does not follow later changes";
    EXPECT_TRUE(set->folderForMountpath("/x"));
    EXPECT_FALSE(set->folderForMountpath("/y"));
    EXPECT_FALSE(set->removeFolderWithMountpoint("/y"));
    EXPECT_TRUE(set->removeFolderWithMountpoint("/x"));
    EXPECT_TRUE(set->folders().empty());
    QVError error;
    EXPECT_FALSE(set->save(&error)) << "a set that belongs to no database can't be saved";
    EXPECT_EQ(error.code, 1001);
}

TEST(DBSubdb, ClientCountMovesAtomically) {
    auto set = DBSubdb::subdbWithFolders({}, "pw");
    EXPECT_EQ(set->addClient(), 1);
    EXPECT_EQ(set->addClient(), 2);
    EXPECT_EQ(set->removeClient(), 1);
    EXPECT_EQ(set->clientCount(), 1);
}
