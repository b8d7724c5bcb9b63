#pragma once
// The logic of the assistant page that runs the upgrade: a backup of the master
// file first (the upgrade never starts without one), the MigrationTask queued
// on the process's task queue, its progress and labels handed to the page, its
// cancel, and its end, after which a run that failed or was cancelled leaves
// the master file as it was and the database is read from it again.
//
// The page itself (the desktop assistant, or qv on a terminal) is a
// PDAssistantView; everything here runs on the main thread, the task reaching
// it from its own thread through the main thread.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "toolkit/OperationQueue.h"
#include "toolkit/QVError.h"
#include "vault/DBMaster.h"

namespace qv {

// What the upgrade shows, on the main thread.
class PDAssistantView {
public:
    virtual ~PDAssistantView() = default;
    // The two lines above the bar: what is being done, and why.
    virtual void setLabels(const std::string& title, const std::string& detail) = 0;
    // The bar: `percent` 0 to 100; at 0 it is indeterminate and animates.
    virtual void showProgress(double percent, bool determinate) = 0;
    virtual void setCancelEnabled(bool enabled) = 0;
    virtual void setNextEnabled(bool enabled) = 0;
    virtual void setPreviousEnabled(bool enabled) = 0;
    // A sheet with one "OK" button.
    virtual void showSheet(const std::string& title, const std::string& text) = 0;
    // A sheet with one "OK" button, after which the program ends.
    virtual void showFatalErrorAndExit(const std::string& text) = 0;
    // Back to the setup page, where the user can choose again.
    virtual void goBack() = 0;
    // The upgrade has ended, whichever way.
    virtual void migrationDidEnd(const std::optional<QVError>& error, bool cancelled) = 0;
};

// What the layers above lend the assistant (start-up installs it, app/LayerWiring.h).
struct PDAssistantHost {
    // Copies the master file into "Backups"; false when that failed.
    std::function<bool()> backupDatabase;
    // Reads the master file again; null (with an error) when it can't be read.
    std::function<DBMasterRef(QVError*)> reloadMasterDB;
};
void QVSetPDAssistantHost(PDAssistantHost host);
const PDAssistantHost& QVPDAssistantHost();

class PDAssistant : public std::enable_shared_from_this<PDAssistant> {
public:
    static constexpr const char* kErrorTitle = "Error in database migration";

    // `upgrading`: an existing database brought up to date (its own small
    // assistant), rather than a new one in the set-up assistant.
    PDAssistant(DBMasterRef master, PDAssistantView& view, bool upgrading);

    // The sizes of the fake images' contents, in bytes, as the setup page planned them.
    std::vector<uint64_t> fakeImageSizes;

    // Backs up the master file (fatal when that fails), then queues the upgrade
    // on the process's task queue, enables cancel and shows progress 0.
    void start();
    void showMigrationProgress(double percent);
    void setLabels(const std::string& title, const std::string& detail);
    void cancelMigration();
    void migrationEnded(const std::optional<QVError>& error);

    // The database: the one given, or the one read again after a failed or
    // cancelled upgrade.
    DBMasterRef master() const { return master_; }
    OperationRef migrationOperation() const { return migrationOperation_; }
    bool upgradingExistingDatabase() const { return upgrading_; }

private:
    DBMasterRef master_;
    PDAssistantView& view_;
    const bool upgrading_;
    OperationRef migrationOperation_;
    bool ended_ = false;
};

} // namespace qv
