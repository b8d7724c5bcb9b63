#include "app/LayerWiring.h"

#include "app/FolderList.h"
#include "automation/ActionsManager.h"
#include "tasks/EncryptFolderTask.h"
#include "tasks/FolderActionsRunner.h"
#include "tasks/LockFolderTask.h"
#include "tasks/UnlockFolderTask.h"

namespace qv {

void QVConnectLayers() {
    static ActionsManager actions;  // stateless; lives as long as the process
    QVSetFolderActionsRunner(&actions);

    FolderList::TaskMakers makers;
    makers.encrypt = [](const QVRecordRef& face) { return EncryptFolderTask::taskWithFolderFace(face); };
    makers.lock = [](const QVRecordRef& face) { return LockFolderTask::taskWithFolderFace(face); };
    makers.unlock = [](const QVRecordRef& face, bool openFolder) {
        return UnlockFolderTask::taskWithFolderFace(face, openFolder);
    };
    FolderList::singleton().setTaskMakers(std::move(makers));
}

} // namespace qv
