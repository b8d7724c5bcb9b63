#include "deniability/PDAssistant.h"

#include "deniability/MigrationTask.h"
#include "notify/QVNotificationCenter.h"
#include "tasks/BaseFolderTask.h"
#include "tasks/TaskQueue.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"

namespace qv {

namespace {
PDAssistantHost& host() {
    static PDAssistantHost h;
    return h;
}
} // namespace

void QVSetPDAssistantHost(PDAssistantHost h) { host() = std::move(h); }
const PDAssistantHost& QVPDAssistantHost() { return host(); }

PDAssistant::PDAssistant(DBMasterRef master, PDAssistantView& view, bool upgrading)
    : master_(std::move(master)), view_(view), upgrading_(upgrading) {}

void PDAssistant::start() {
    view_.setPreviousEnabled(false);
    view_.setNextEnabled(false);
    if (!host().backupDatabase || !host().backupDatabase()) {
        view_.showFatalErrorAndExit(
            "Quillvane could not make a backup of your database before upgrading it, so it was left as it is. "
            "Please contact support.");
        return;
    }
    migrationOperation_ = MigrationTask::taskWithAssistant(shared_from_this());
    QVError error;
    if (!addFolderTask(QVAppOperationQueue(), migrationOperation_, &error)) {
        QV_LOG_ERROR("couldn't queue the database upgrade: " + error.description);
        migrationEnded(error);
        return;
    }
    // An upgrade cancelled before it started never runs, and so never ends by
    // itself: whatever way it finishes, the page hears of its end.
    auto self = shared_from_this();
    auto watcher = BlockOperation::blockOperationWithVoidBlock([self] {
        performBlockOnMainThread(
            [self] {
                if (!self->ended_)
                    self->migrationEnded(
                        QVError{QVAppErrorDomain(), QVErrorCancelled, "User canceled size calculation"});
            },
            false);
    });
    watcher->addDependency(migrationOperation_);
    QVAppOperationQueue().addOperation(watcher);
    view_.setCancelEnabled(true);
    showMigrationProgress(0);
}

void PDAssistant::showMigrationProgress(double percent) { view_.showProgress(percent, percent != 0); }

void PDAssistant::setLabels(const std::string& title, const std::string& detail) { view_.setLabels(title, detail); }

void PDAssistant::cancelMigration() {
    if (migrationOperation_) migrationOperation_->cancel();
    view_.setCancelEnabled(false);
}

void PDAssistant::migrationEnded(const std::optional<QVError>& error) {
    if (ended_) return;
    ended_ = true;
    const bool cancelled = migrationOperation_ && migrationOperation_->isCancelled();
    if (error) {
        const std::string text =
            "Upgrading the database failed. Please contact support and copy this message:\n\n" + error->description;
        QVError reloadError;
        DBMasterRef reloaded = host().reloadMasterDB ? host().reloadMasterDB(&reloadError) : nullptr;
        if (reloaded) {
            master_ = reloaded;
            if (!cancelled) {
                view_.showSheet(kErrorTitle, text);
                view_.setPreviousEnabled(true);
                view_.showProgress(0, true);
            }
        } else {
            view_.showFatalErrorAndExit("The database file could not be reloaded while cancelling: " +
                                        reloadError.description);
            view_.migrationDidEnd(error, cancelled);
            return;
        }
    }
    view_.setCancelEnabled(false);
    if (!cancelled) view_.setNextEnabled(true);
    if (upgrading_ && !error)
        QVNotificationCenter::defaultCenter().postInfo("Enjoy your enhanced plausible deniability!", false);
    if (cancelled) view_.goBack();
    view_.migrationDidEnd(error, cancelled);
}

} // namespace qv
