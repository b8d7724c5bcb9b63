#pragma once
// The upgrade of a database that needs it at start: a small window with what is
// being done, a bar and Cancel, over the password screen, which waits with its
// own bar until the upgrade has ended. The space for fake images is planned as
// the assistant plans it by default.
#include <QDialog>
#include <functional>
#include <memory>

#include "app/FolderTaskMark.h"
#include "deniability/PDAssistant.h"

class QLabel;
class QProgressBar;
class QPushButton;

namespace qv::ui {

class PasswordScreen;

class UpgradeWindow : public QDialog, public PDAssistantView {
    Q_OBJECT
public:
    UpgradeWindow(DBMasterRef master, PasswordScreen* screen, QWidget* parent = nullptr);
    ~UpgradeWindow() override;

    // Starts the upgrade; `ended` hears the database to go on with (read again
    // after a failure or a cancel). While another process upgrades, nothing is
    // started and `ended` hears the database as it is.
    void start(std::function<void(DBMasterRef)> ended);

    void setLabels(const std::string& title, const std::string& detail) override;
    void showProgress(double percent, bool determinate) override;
    void setCancelEnabled(bool enabled) override;
    void setNextEnabled(bool) override {}
    void setPreviousEnabled(bool) override {}
    void showSheet(const std::string& title, const std::string& text) override;
    void showFatalErrorAndExit(const std::string& text) override;
    void goBack() override {}
    void migrationDidEnd(const std::optional<QVError>& error, bool cancelled) override;

protected:
    void reject() override;

private:
    DBMasterRef master_;
    PasswordScreen* screen_;
    std::unique_ptr<FolderTaskMark> mark_;
    std::shared_ptr<PDAssistant> assistant_;
    std::function<void(DBMasterRef)> ended_;
    QLabel* title_;
    QLabel* detail_;
    QProgressBar* bar_;
    QPushButton* cancel_;
};

} // namespace qv::ui
