#include "tasks/ImageToolCommand.h"

#include "disk/DiskMasterSupport.h"
#include "tasks/LockFolderTask.h"
#include "tasks/UnlockFolderTask.h"
#include "toolkit/Log.h"
#include "vault/Schemas.h"

namespace qv {

std::string QVImagePathOfFace(const QVRecordRef& folderFace) { return diskmaster::partsOf(folderFace).imagePath; }

ImageToolRun QVRunImageToolForFace(const QVRecordRef& folderFace, const std::vector<std::string>& args,
                                   bool stdinpass) {
    ImageToolRun run;
    const diskmaster::FaceParts parts = diskmaster::partsOf(folderFace);
    diskmaster::ImagePassword password(folderFace, parts.folder);
    QVError error;
    if (stdinpass && !password.fill(&error)) {
        run.error = error;
        return run;
    }
    const auto output = diskmaster::runImageTool(args, password.bytes(), &error);
    run.output = diskmaster::outputText(output);
    if (!error.empty()) {
        error.description = diskmaster::trimmedMessage(error.description);
        run.error = error;
    }
    return run;
}

OperationResult QVRunWithFolderLocked(BaseFolderTask& task, const QVRecordRef& folderFace, const char* refusal,
                                      const std::string& progress, const std::function<void()>& work) {
    if (auto lockError = std::make_shared<LockFolderTask>()->go(folderFace)) {
        task.endProgress(folderFace);
        return lockError;
    }
    if (auto refused = task.failIfUnlocked(folderFace, QVFormat(refusal, QVImagePathOfFace(folderFace).c_str())))
        return refused;
    task.startIndeterminateProgress(folderFace, progress, false);
    work();
    OperationResult result = std::make_shared<UnlockFolderTask>()->go(folderFace);
    task.endProgress(folderFace);
    return result;
}

} // namespace qv
