// The task classes behind the folder list's operations, for qv.
#include "cli/Cli.h"
#include "tasks/EncryptFolderTask.h"
#include "tasks/LockFolderTask.h"
#include "tasks/UnlockFolderTask.h"
#include "ui/logic/FolderList.h"

namespace qv::cli {

void installTaskMakers() {
    FolderList::TaskMakers makers;
    makers.encrypt = [](const QVRecordRef& face) { return EncryptFolderTask::taskWithFolderFace(face); };
    makers.lock = [](const QVRecordRef& face) { return LockFolderTask::taskWithFolderFace(face); };
    makers.unlock = [](const QVRecordRef& face, bool openFolder) {
        return UnlockFolderTask::taskWithFolderFace(face, openFolder);
    };
    FolderList::singleton().setTaskMakers(std::move(makers));
}

} // namespace qv::cli
