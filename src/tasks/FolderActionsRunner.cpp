#include "tasks/FolderActionsRunner.h"

#include "toolkit/Log.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

// Stands in while nothing is installed: an empty list is done at once, a list
// with actions in it fails, so that no action is ever skipped in silence.
class NoActionsRunner : public FolderActionsRunner {
public:
    bool executeUnlockActions(const QVRecordRef& folder, QVError* error) override {
        return refuseActions(FolderRef{folder}.unlockActions(), error);
    }
    bool executeLockActions(const QVRecordRef& folder, QVError* error) override {
        return refuseActions(FolderRef{folder}.lockActions(), error);
    }
    std::optional<std::string> appInUnlockActionsIsRunning(const QVRecordRef&) override { return std::nullopt; }

private:
    static bool refuseActions(const Value& actions, QVError* error) {
        const ArrayRef list = actions.toArray();
        if (!list || list->empty()) return true;
        QV_LOG_ERROR("folder actions can't run: no runner is installed in this program");
        QVSetAppError(error, QVErrorFailed, "Folder actions can't run in this program.");
        return false;
    }
};

FolderActionsRunner* installed = nullptr;

} // namespace

void QVSetFolderActionsRunner(FolderActionsRunner* runner) { installed = runner; }

FolderActionsRunner& QVFolderActionsRunner() {
    static NoActionsRunner none;
    return installed ? *installed : none;
}

} // namespace qv
