#pragma once
// Running the database upgrade as the assistant runs it, with a page that
// records what it was shown, and reading the master file as an examiner would.
#include <optional>
#include <string>
#include <vector>

#include "deniability/MigrationTask.h"
#include "deniability/PDAssistant.h"
#include "support/QtApp.h"
#include "vault/QVCrypto.h"

namespace qv::test {

struct RecordingView : PDAssistantView {
    std::vector<std::pair<std::string, std::string>> labels;
    std::vector<double> progress;
    std::vector<std::string> sheets;
    std::string fatal;
    bool cancelEnabled = false, nextEnabled = false, previousEnabled = false, wentBack = false, ended = false;
    std::optional<QVError> endError;
    bool endCancelled = false;

    void setLabels(const std::string& t, const std::string& d) override { labels.emplace_back(t, d); }
    void showProgress(double p, bool) override { progress.push_back(p); }
    void setCancelEnabled(bool e) override { cancelEnabled = e; }
    void setNextEnabled(bool e) override { nextEnabled = e; }
    void setPreviousEnabled(bool e) override { previousEnabled = e; }
    void showSheet(const std::string& title, const std::string& text) override {
        sheets.push_back(title + ": " + text);
    }
    void showFatalErrorAndExit(const std::string& text) override { fatal = text; }
    void goBack() override { wentBack = true; }
    void migrationDidEnd(const std::optional<QVError>& error, bool cancelled) override {
        ended = true;
        endError = error;
        endCancelled = cancelled;
    }
};

// Starts the upgrade of `master` with these fake image sizes; with `cancelAtOnce`
// the operation is cancelled right after it was queued. Returns once it ended.
inline std::shared_ptr<PDAssistant> runUpgrade(const DBMasterRef& master, RecordingView& view,
                                               std::vector<uint64_t> sizes = {}, bool cancelAtOnce = false,
                                               int timeoutMs = 10 * 60 * 1000) {
    qtApp();
    auto assistant = std::make_shared<PDAssistant>(master, view, true);
    assistant->fakeImageSizes = std::move(sizes);
    assistant->start();
    if (cancelAtOnce) assistant->cancelMigration();
    processEventsUntil([&] { return view.ended || !view.fatal.empty(); }, timeoutMs);
    processEventsFor(20);
    return assistant;
}

// The logN byte of every blob in the master's dictionary.
inline std::vector<int> blobLogNs(const DBMasterRef& master) {
    std::vector<int> out;
    for (const auto& [key, blob] : *master->masterdb()->at(QVMDBSubdbsKey).toDict()) out.push_back(blob.toData()[7]);
    return out;
}

} // namespace qv::test
