#include "app/ScriptedFolders.h"

#include "disk/FolderState.h"
#include "tasks/BaseFolderTask.h"
#include "tasks/LockFolderTask.h"
#include "tasks/TaskQueue.h"
#include "tasks/UnlockFolderTask.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/FacePresentation.h"

namespace qv {

namespace {

enum class Change { Unlock, Lock };

QVScriptAnswer runForScript(const DBMasterRef& master, const std::string& mountpath, const std::string& password,
                            Change change) {
    if (!master) return {false, "No database is open."};
    QVError error;
    const DBSubdbRef subdb = master->getSubDBWithPassword(password, &error);
    if (!subdb) return {false, error.empty() ? "No Folder Set opens with this password." : error.description};

    const std::string path = QVTrimmedPath(mountpath);
    QVScriptAnswer answer;
    const QVRecordRef folder = subdb->folderForMountpath(path);
    if (!folder) {
        answer = {false, "The Folder Set has no folder at " + path + "."};
    } else {
        QVRecordRef face;
        performBlockOnMainThread(
            [&] {
                face = QVFaceOnShowWithMountpoint(path);
                if (!face) face = QVFolderFaceCreate(folder);
            },
            true);
        const OperationRef operation = change == Change::Unlock ? UnlockFolderTask::taskWithFolderFace(face, false)
                                                                : LockFolderTask::taskWithFolderFace(face);
        QVError queueError;
        bool queued = false;
        performBlockOnMainThread([&] { queued = addFolderTask(QVAppOperationQueue(), operation, &queueError); }, true);
        if (!queued) {
            answer = {false, queueError.description};
        } else {
            operation->waitUntilFinished();
            const OperationResult result = operation->result();
            if (result)
                answer = {false, result->description};
            else
                answer = {true, change == Change::Unlock ? path + " is unlocked." : path + " is locked."};
        }
    }
    QVLogInfo(QVFormat("scripted %s of %s: %s", change == Change::Unlock ? "unlock" : "lock", path.c_str(),
                       answer.ok ? "done" : answer.message.c_str()));
    master->returnSubDB(subdb);
    return answer;
}

} // namespace

QVScriptAnswer QVUnlockFolderForScript(const DBMasterRef& master, const std::string& mountpath,
                                       const std::string& password) {
    return runForScript(master, mountpath, password, Change::Unlock);
}

QVScriptAnswer QVLockFolderForScript(const DBMasterRef& master, const std::string& mountpath,
                                     const std::string& password) {
    return runForScript(master, mountpath, password, Change::Lock);
}

} // namespace qv
