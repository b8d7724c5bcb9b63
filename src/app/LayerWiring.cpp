#include "app/LayerWiring.h"

#include "app/AutoUnlockCount.h"
#include "app/Backup.h"
#include "app/FolderList.h"
#include "app/Startup.h"
#include "automation/ActionsManager.h"
#include "deniability/PDAssistant.h"
#include "tasks/DecryptFolderTask.h"
#include "tasks/EncryptFolderTask.h"
#include "tasks/FolderActionsRunner.h"
#include "tasks/ImportSparseBundleTask.h"
#include "tasks/LockFolderTask.h"
#include "tasks/StatFolderTask.h"
#include "tasks/UnlockFolderTask.h"

namespace qv {

void QVConnectLayers() {
    static ActionsManager actions;  // stateless; lives as long as the process
    QVSetFolderActionsRunner(&actions);

    FolderList::TaskMakers makers;
    makers.encrypt = [](const QVRecordRef& face) { return EncryptFolderTask::taskWithFolderFace(face); };
    makers.decrypt = [](const QVRecordRef& face) { return DecryptFolderTask::taskWithFolderFace(face); };
    makers.lock = [](const QVRecordRef& face) { return LockFolderTask::taskWithFolderFace(face); };
    makers.unlock = [](const QVRecordRef& face, bool openFolder) {
        return UnlockFolderTask::taskWithFolderFace(face, openFolder);
    };
    makers.import = [](const QVRecordRef& face) { return ImportSparseBundleTask::taskWithFolderFace(face, nullptr); };
    FolderList::singleton().setTaskMakers(std::move(makers));
    // Measuring a folder again: after its unlock, and when a volume below its
    // path came or went.
    auto measure = [](const QVRecordRef& face) { return StatFolderTask::taskWithFolderFace(face, true); };
    UnlockFolderTask::setStatTaskMaker(measure);
    FolderList::singleton().setStatTaskMaker(measure);
    DecryptFolderTask::setAutounlockCounter([](int64_t delta) { AutoUnlockCount::increment(delta); });

    PDAssistantHost host;
    host.backupDatabase = [] { return backupQuillvaneDatabase(); };
    host.reloadMasterDB = [](QVError* error) { return reloadMasterDB(error); };
    QVSetPDAssistantHost(std::move(host));
}

} // namespace qv
