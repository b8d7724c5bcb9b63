// Volumes mounted or unmounted from outside: the face at the volume's path
// follows it, and faces below it are measured again.
#include "app/VolumeNotices.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <filesystem>

#include "app/FolderList.h"
#include "support/QtApp.h"
#include "support/OperationLog.h"
#include "support/TempHome.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

namespace qv {
namespace {

namespace fs = std::filesystem;

class VolumeNoticesTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::qtApp();
        ASSERT_TRUE(registerQuillvaneDefaults());
        storage = QVStorageCreate("Default", URLValue{home.root() + "/storage"});
        list.setQueue(&queue);
        list.setStatTaskMaker([this](const QVRecordRef& face) {
            return log.note(QVFolderMountpointPath(FolderFaceRef{face}.folder().as<QVRecord>()));
        });
        std::vector<QVRecordRef> folders;
        for (const char* name : {"Volume", "Volume/Inner", "Volume/Deeper/Inside", "VolumeTwin"}) {
            fs::create_directories(home.root() + "/" + name);
            folders.push_back(QVFolderCreate(storage, URLValue{home.root() + "/" + name}));
        }
        list.loadSubdb(DBSubdb::subdbWithFolders(folders, "pw"));
    }
    void TearDown() override {
        queue.waitUntilAllOperationsAreFinished();
        list.returnSubDB();
        list.setStatTaskMaker(nullptr);
        list.setQueue(nullptr);
    }
    bool lockedAt(const std::string& name) {
        QCoreApplication::processEvents();
        return FolderFaceRef{QVFaceOnShowWithMountpoint(home.root() + "/" + name)}.locked().toBool();
    }
    std::vector<std::string> measuredSorted() { return log.sorted(queue); }

    test::TempHome home;
    FolderList& list = FolderList::singleton();
    OperationQueue queue;
    QVRecordRef storage;
    test::OperationLog log;
};

TEST_F(VolumeNoticesTest, TheFaceAtTheVolumeFollowsItAndFacesBelowAreMeasured) {
    ASSERT_TRUE(lockedAt("Volume"));
    QVApplyMountChanges({.mounted = {home.root() + "/Volume"}, .unmounted = {}});
    EXPECT_FALSE(lockedAt("Volume"));
    EXPECT_TRUE(lockedAt("Volume/Inner")) << "only the face at the volume's own path changes";
    EXPECT_TRUE(lockedAt("VolumeTwin")) << "a path that merely begins with the same letters is not below it";
    EXPECT_EQ(measuredSorted(),
              (std::vector<std::string>{home.root() + "/Volume/Deeper/Inside", home.root() + "/Volume/Inner"}));

    QVApplyMountChanges({.mounted = {}, .unmounted = {home.root() + "/Volume/"}});
    EXPECT_TRUE(lockedAt("Volume")) << "a trailing slash names the same path";
}

TEST_F(VolumeNoticesTest, WithoutAMeasuringTaskNothingIsQueued) {
    list.setStatTaskMaker(nullptr);
    QVUpdateExternalImages(home.root() + "/Volume");
    EXPECT_TRUE(measuredSorted().empty());
    EXPECT_EQ(queue.operationCount(), 0u);
}

} // namespace
} // namespace qv
