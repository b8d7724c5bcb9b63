// The task classes behind the folder list's operations, for qv.
#include "cli/Cli.h"
#include "tasks/EncryptFolderTask.h"
#include "ui/logic/FolderList.h"

namespace qv::cli {

void installTaskMakers() {
    FolderList::TaskMakers makers;
    makers.encrypt = [](const QVRecordRef& face) { return EncryptFolderTask::taskWithFolderFace(face); };
    FolderList::singleton().setTaskMakers(std::move(makers));
}

} // namespace qv::cli
