#include "app/AllFolders.h"

#include "app/FolderList.h"
#include "disk/FolderState.h"
#include "tasks/BaseFolderTask.h"
#include "tasks/LockFolderTask.h"
#include "tasks/TaskQueue.h"
#include "tasks/UnlockFolderTask.h"
#include "toolkit/Log.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

size_t queueEach(const std::vector<QVRecordRef>& faces, bool lock) {
    size_t queued = 0;
    for (const QVRecordRef& face : faces) {
        const OperationRef operation =
            lock ? LockFolderTask::taskWithFolderFace(face) : UnlockFolderTask::taskWithFolderFace(face, false);
        QVError error;
        if (addFolderTask(QVAppOperationQueue(), operation, &error))
            ++queued;
        else
            QV_LOG_ERROR(QVFormat("couldn't queue a task: %s", error.description.c_str()));
    }
    return queued;
}

} // namespace

std::vector<QVRecordRef> QVFoldersInLockedState(bool locked) {
    std::vector<QVRecordRef> out;
    if (!FolderList::singleton().subdb()) return out;
    for (const QVRecordRef& face : FolderList::singleton().faces()) {
        const bool unlocked = QVFolderIsUnlocked(FolderFaceRef{face}.folder().as<QVRecord>(), nullptr);
        if (unlocked != locked) out.push_back(face);
    }
    return out;
}

size_t QVLockAllFolders() { return queueEach(QVFoldersInLockedState(false), true); }

size_t QVUnlockAllFolders() { return queueEach(QVFoldersInLockedState(true), false); }

} // namespace qv
