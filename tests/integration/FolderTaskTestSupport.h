#pragma once
// What the unlock, lock and folder-action tests share: folders with real images
// in a set the folder list shows (so actions find their targets), tasks run on
// the task queue, applications of their own, and the messages the tasks showed.
#include <gtest/gtest.h>

#include <string>

#include "tasks/TaskQueue.h"
#include "disk/FileSystemVolumes.h"
#include "integration/DiskMasterTestSupport.h"
#include "tasks/BaseFolderTask.h"
#include "tasks/LockFolderTask.h"
#include "tasks/UnlockFolderTask.h"
#include "app/FolderList.h"

namespace qv::test {

class FolderTaskTest : public DiskMasterTest {
protected:
    void TearDown() override {
        children.stopAll();
        FolderList::singleton().returnSubDB();
        DiskMasterTest::TearDown();
    }

    std::string folderPath(const std::string& name) const { return sandbox.path("folders/" + name); }
    // An encrypted folder of the set with its image (volume label "Vol").
    QVRecordRef addFolder(const std::string& name) {
        QVRecordRef face = makeFace(folderPath(name));
        createImageFor(face);
        FolderRef{folderOf(face)}.setEncrypted(Value(true));
        return folderOf(face);
    }
    // Shows the set in the folder list; call once every folder is added.
    void show() { FolderList::singleton().loadSubdb(subdb); }
    QVRecordRef face(const std::string& name) const {
        for (const auto& f : FolderList::singleton().faces())
            if (FolderRef{folderOf(f)}.mountpoint().toURLPath() == folderPath(name)) return f;
        ADD_FAILURE() << "no face for " << name;
        return nullptr;
    }

    // Queues the task's operation as the application does and waits for it.
    OperationResult run(const OperationRef& operation) {
        QVError error;
        EXPECT_TRUE(addFolderTask(QVAppOperationQueue(), operation, &error)) << error.description;
        EXPECT_TRUE(processEventsUntil([&] { return operation->isFinished(); }, 10 * 60 * 1000));
        processEventsFor(50);  // what the task posted without waiting
        return operation->result();
    }
    OperationResult unlock(const std::string& name) { return run(UnlockFolderTask::taskWithFolderFace(face(name), false)); }
    OperationResult lock(const std::string& name) { return run(LockFolderTask::taskWithFolderFace(face(name))); }
    bool mounted(const std::string& name) const { return isVolumeAtURL(folderPath(name), nullptr); }

    ApplicationsSandbox apps;
    Children children;
    RecordedNotifications notifications;
};

} // namespace qv::test
