#include "automation/ActionsManager.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>

#include "disk/RunningApplications.h"
#include "disk/DesktopOpen.h"
#include "disk/URLHelpers.h"
#include "tasks/LockFolderTask.h"
#include "tasks/UnlockFolderTask.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "toolkit/MainThread.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

constexpr const char* kFolderNotFound = "Folder not found in the database";

std::string withoutExtension(const std::string& name) {
    const size_t dot = name.rfind('.');
    return dot == std::string::npos || dot == 0 ? name : name.substr(0, dot);
}

// The folders whose action lists are running on this thread, outermost first:
// a chain of Unlock and Lock Folder actions runs on one thread, depth first.
thread_local std::vector<std::string> tFoldersRunningActions;

class RunningActions {
public:
    explicit RunningActions(std::string mountpoint) : mountpoint_(std::move(mountpoint)) {
        tFoldersRunningActions.push_back(mountpoint_);
    }
    ~RunningActions() {
        auto it = std::find(tFoldersRunningActions.rbegin(), tFoldersRunningActions.rend(), mountpoint_);
        if (it != tFoldersRunningActions.rend()) tFoldersRunningActions.erase(std::next(it).base());
    }
    RunningActions(const RunningActions&) = delete;
    RunningActions& operator=(const RunningActions&) = delete;

    static bool contains(const std::string& mountpoint) {
        return std::find(tFoldersRunningActions.begin(), tFoldersRunningActions.end(), mountpoint) !=
               tFoldersRunningActions.end();
    }

private:
    std::string mountpoint_;
};

} // namespace

bool ActionsManager::executeUnlockActions(const QVRecordRef& folder, QVError* error) {
    return executeActions(FolderRef{folder}.unlockActions().toArray(), folder, error);
}

bool ActionsManager::executeLockActions(const QVRecordRef& folder, QVError* error) {
    return executeActions(FolderRef{folder}.lockActions().toArray(), folder, error);
}

bool ActionsManager::executeActions(const ArrayRef& actions, const QVRecordRef& folder, QVError* error) {
    if (!actions || actions->empty()) return true;
    // A copy: an action may change lists (its folder's, through a nested task)
    // while this one runs.
    std::vector<QVRecordRef> sorted;
    sorted.reserve(actions->size());
    for (const Value& item : *actions) sorted.push_back(item.as<QVRecord>());
    std::stable_sort(sorted.begin(), sorted.end(), [](const QVRecordRef& a, const QVRecordRef& b) {
        return FolderActionRef{a}.priority().toInt() < FolderActionRef{b}.priority().toInt();
    });
    RunningActions running(QVFolderMountpointPath(folder));
    for (const QVRecordRef& action : sorted) {
        if (!executeAction(action, folder, error)) return false;
    }
    return true;
}

bool ActionsManager::executeAction(const QVRecordRef& action, const QVRecordRef& folder, QVError* error) {
    switch (FolderActionRef{action}.action().toInt()) {
        case QVActionOpen: return executeOpen(action, folder, error);
        case QVActionQuit: return executeClose(action, folder, error);
        case QVActionUnlockFolder: return executeUnlock(action, folder, error);
        case QVActionLockFolder: return executeLock(action, folder, error);
        default: break;
    }
    QVSetAppError(error, QVErrorFailed, "Unknown operation type!");
    return false;
}

bool ActionsManager::executeOpen(const QVRecordRef& action, const QVRecordRef& folder, QVError* error) {
    (void)folder;
    const std::string path = FolderActionRef{action}.url().toURLPath();
    QVError why;
    bool opened = false;
    if (path.empty()) {
        why.description = "no item";
    } else if (!checkResourceIsReachable(path, &why)) {
        // xdg-open would start and only then find nothing to open.
    } else if (isApp(path)) {
        opened = QVLaunchApplication(path, &why);
    } else {
        opened = QVOpenURL(path, &why);
    }
    if (opened) {
        if (error) *error = QVError();
        return true;
    }
    QV_LOG_ERROR(QVFormat("couldn't open '%s': %s", path.c_str(), why.description.c_str()));
    QVSetAppError(error, QVErrorFailed, QVFormat("Couldn't open: %s", path.c_str()));
    return false;
}

bool ActionsManager::executeClose(const QVRecordRef& action, const QVRecordRef& folder, QVError* error) {
    FolderActionRef a{action};
    const Value parameter = a.parameter();
    if (!parameter.isString()) return true;
    const std::vector<QVRunningApplication> instances =
        QVRunningApplication::runningApplicationsWithBundleIdentifier(parameter.toString());
    if (instances.empty()) return true;

    const QVRecordRef face = faceForFolder(QVFolderMountpointPath(folder));
    const std::string name = withoutExtension(QVLastPathComponent(a.url().toURLPath()));
    for (const QVRunningApplication& instance : instances) {
        const std::string status = QVFormat("Closing %s...", name.c_str());
        presentFolderFace(face, {.indeterminate = true, .animate = true, .status = status});
        if (!closeApp(instance)) {
            QVSetAppError(error, QVErrorActionFailed,
                          QVFormat("Could not close the application: %s. In order to avoid possible data loss, "
                                   "folder lock has been cancelled",
                                   name.c_str()));
            return false;
        }
    }
    return true;
}

namespace {

// Runs the other folder's task body here, on this thread, so that a chain is
// done depth first. A folder already running further up the chain is skipped.
// A missing folder fails the action; `goOnWhenMissing` lets the run go on with
// the error set (one folder that is gone mustn't keep the others unlocked).
template <class Task>
bool runFolderTask(const QVRecordRef& action, const QVRecordRef& folder, QVError* error, const char* verb,
                   bool goOnWhenMissing) {
    const std::string target = QVTrimmedPath(FolderActionRef{action}.url().toURLPath());
    if (RunningActions::contains(target)) {
        QVLogInfo(QVFormat("'%s' is already being %s further up this chain", target.c_str(), verb));
        if (error) *error = QVError();
        return true;
    }
    const QVRecordRef face = ActionsManager::faceForFolder(target);
    if (!face) {
        QVSetAppError(error, QVErrorActionFailed,
                      QVFormat("%s: %s", kFolderNotFound, QVLastPathComponent(QVFolderMountpointPath(folder)).c_str()));
        return goOnWhenMissing;
    }
    const OperationResult result = std::make_shared<Task>()->go(face);
    if (error) *error = result.value_or(QVError());
    return !result;
}

} // namespace

bool ActionsManager::executeUnlock(const QVRecordRef& action, const QVRecordRef& folder, QVError* error) {
    return runFolderTask<UnlockFolderTask>(action, folder, error, "unlocked", false);
}

bool ActionsManager::executeLock(const QVRecordRef& action, const QVRecordRef& folder, QVError* error) {
    return runFolderTask<LockFolderTask>(action, folder, error, "locked", true);
}

bool ActionsManager::closeApp(const QVRunningApplication& application) {
    if (!application.terminate()) return false;
    const auto start = std::chrono::steady_clock::now();
    const auto limit = std::chrono::duration<double>(QVCloseAppTimeoutSeconds);
    while (!application.isTerminated() && std::chrono::steady_clock::now() - start < limit)
        ::usleep(QVCloseAppPollMicroseconds);
    return application.isTerminated();
}

QVRecordRef ActionsManager::faceForFolder(const std::string& url) {
    QVRecordRef found;
    performBlockOnMainThread([&] { found = QVFaceOnShowWithMountpoint(url); }, true);
    return found;
}

std::vector<std::string> ActionsManager::openAppActionsInFolder(const QVRecordRef& folder, bool lock) {
    std::vector<std::string> identifiers;
    FolderRef f{folder};
    const ArrayRef actions = lock ? f.lockActions().toArray() : f.unlockActions().toArray();
    if (!actions) return identifiers;
    for (const Value& item : *actions) {
        FolderActionRef action{item.as<QVRecord>()};
        if (action.action().toInt() != QVActionOpen) continue;
        const Value parameter = action.parameter();
        if (parameter.isString()) identifiers.push_back(parameter.toString());
    }
    return identifiers;
}

std::optional<std::string> ActionsManager::appInUnlockActionsIsRunning(const QVRecordRef& folder) {
    for (const std::string& identifier : openAppActionsInFolder(folder, false)) {
        const auto instances = QVRunningApplication::runningApplicationsWithBundleIdentifier(identifier);
        if (!instances.empty()) return instances.front().localizedName();
    }
    return std::nullopt;
}

} // namespace qv
