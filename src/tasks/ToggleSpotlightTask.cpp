#include "tasks/ToggleSpotlightTask.h"

#include <algorithm>

#include "disk/FolderState.h"
#include "disk/ProcessRunner.h"
#include "disk/ToolPaths.h"
#include "notify/QVNotificationCenter.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

// qv-index's output, or nothing with *error set.
std::optional<std::string> runIndexTool(const std::vector<std::string>& args, QVError* error) {
    QVError failure;
    auto output = quickCommand(QVToolPath("qv-index"), args, &failure);
    if (failure.empty()) return output;
    while (!failure.description.empty() && failure.description.back() == '\n') failure.description.pop_back();
    if (error) *error = failure;
    return std::nullopt;
}

} // namespace

bool ToggleSpotlightTask::isDisabled(const std::string& text) {
    std::string lower = text;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower.find("enabled") == std::string::npos;
}

bool ToggleSpotlightTask::spotLightEnabledForMountpoint(const std::string& mountpoint, QVError* error) {
    const auto output = runIndexTool({"-s", mountpoint}, error);
    return output && !isDisabled(*output);
}

OperationResult ToggleSpotlightTask::enableSpotlight(bool enable, const std::string& mountpoint) {
    QVError error;
    if (!runIndexTool({"-i", enable ? "on" : "off", mountpoint}, &error)) return error;
    return std::nullopt;
}

OperationResult ToggleSpotlightTask::go(const QVRecordRef& folderFace) {
    const QVRecordRef folder = FolderFaceRef{folderFace}.folder().as<QVRecord>();
    auto& centre = QVNotificationCenter::defaultCenter();
    if (!QVFolderIsUnlocked(folder, nullptr)) {
        QVError error{QVAppErrorDomain(), QVErrorFailed, "Folder must be unlocked to enable SpotLight indexing."};
        centre.postAlert(error.description, true);
        return error;
    }
    presentFolderFace(folderFace,
                      {.indeterminate = true,
                       .animate = true,
                       .percentage = 0.0,
                       .status = "Changing Spotlight indexing ...",
                       .cancelable = false},
                      true);

    const std::string mountpoint = QVFolderMountpointPath(folder);
    QVError readError;
    const bool enabled = spotLightEnabledForMountpoint(mountpoint, &readError);
    OperationResult error = readError.empty() ? enableSpotlight(!enabled, mountpoint) : OperationResult(readError);
    const bool state = error ? enabled : !enabled;
    if (error)
        centre.postAlert(error->description, true);
    else
        centre.postInfo(state ? "Spotlight enabled" : "Spotlight disabled", false);

    performBlockOnMainThread(
        [folderFace, state] {
            FolderFaceRef face{folderFace};
            face.setProgressIndeterminate(Value(false));
            face.setProgressAnimate(Value(false));
            face.setCancelable(Value(false));
            face.setOpCanceled(Value());
            face.setSpotlightStatus(Value(state));
            QVDisplayFolderSizeInfo(folderFace);
        },
        false);
    return error;
}

} // namespace qv
