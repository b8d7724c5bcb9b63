// A folder unlocked and locked by a script (the bus methods' work): the
// password opens the set from the master file, the folder must be one of its
// own, the task runs on the queue while the caller waits off the main thread,
// and the face on show follows it.
#include "app/ScriptedFolders.h"

#include <gtest/gtest.h>

#include "integration/FolderTaskTestSupport.h"
#include "support/TempHome.h"
#include "vault/Locations.h"

using namespace qv;
using namespace qv::test;

class ScriptedFolders : public FolderTaskTest {
protected:
    void SetUp() override {
        FolderTaskTest::SetUp();
        QVError error;
        master = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), true, &error);
        ASSERT_TRUE(master) << error.description;
    }
    // Stores the fixture's set, with its folders, in the master file.
    void storeSet() {
        QVError error;
        ASSERT_TRUE(master->addSubDB(subdb, true, &error) && subdb->save(&error)) << error.description;
        master->returnSubDB(subdb);
    }
    QVScriptAnswer unlockByScript(const std::string& path, const std::string& password) {
        return offMainThread([&] { return QVUnlockFolderForScript(master, path, password); });
    }
    QVScriptAnswer lockByScript(const std::string& path, const std::string& password) {
        return offMainThread([&] { return QVLockFolderForScript(master, path, password); });
    }

    TempHome home;
    DBMasterRef master;
};

TEST_F(ScriptedFolders, TheSetsOwnFolderUnlocksAndLocksAndItsRowFollows) {
    addFolder("Scripted");
    storeSet();
    show();
    const std::string path = folderPath("Scripted");

    QVScriptAnswer answer = unlockByScript(path, "not the password");
    EXPECT_FALSE(answer.ok);
    EXPECT_FALSE(answer.message.empty());
    EXPECT_FALSE(mounted("Scripted"));

    answer = unlockByScript(path + "/", kSetPassword);
    ASSERT_TRUE(answer.ok) << answer.message;
    EXPECT_TRUE(mounted("Scripted"));
    processEventsFor(50);
    EXPECT_FALSE(FolderFaceRef{face("Scripted")}.locked().toBool()) << "the row on show follows";

    answer = lockByScript(path, kSetPassword);
    ASSERT_TRUE(answer.ok) << answer.message;
    EXPECT_FALSE(mounted("Scripted"));
}

TEST_F(ScriptedFolders, AFolderOfNoSetOnShowAndAPathOutsideTheSet) {
    addFolder("Hidden Away");
    storeSet();
    const std::string path = folderPath("Hidden Away");

    QVScriptAnswer answer = unlockByScript(sandbox.path("folders/Not Ours"), kSetPassword);
    EXPECT_FALSE(answer.ok);
    EXPECT_NE(answer.message.find("Not Ours"), std::string::npos) << answer.message;

    answer = unlockByScript(path, kSetPassword);
    ASSERT_TRUE(answer.ok) << answer.message;
    EXPECT_TRUE(mounted("Hidden Away"));
    answer = lockByScript(path, kSetPassword);
    ASSERT_TRUE(answer.ok) << answer.message;
    EXPECT_FALSE(mounted("Hidden Away"));
}
