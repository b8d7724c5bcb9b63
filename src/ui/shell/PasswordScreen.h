#pragma once
// The master password screen: the only place where a password becomes the
// Folder Set on show. The derivation (a second or more) runs on a worker
// thread, so the screen never freezes; its answer comes back here.
//
// Outcomes: a right password empties the field, loads the set into the folder
// list and says `unlocked`; a wrong one shows the error line and keeps the
// text; an empty field does nothing; a master file that vanished gives the
// sticky alert "Error loading database".
//
// It also carries the upgrade's look at start (showMigrationUI and friends):
// the field and button give way to a bar while the database is brought up to date.
#include <QWidget>
#include <functional>

#include "vault/DBMaster.h"

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;

namespace qv::ui {

class PasswordScreen : public QWidget {
    Q_OBJECT
public:
    explicit PasswordScreen(QWidget* parent = nullptr);

    // Where the database comes from (it may be read again after an upgrade).
    void setMasterSource(std::function<DBMasterRef()> source) { masterSource_ = std::move(source); }

    // The upgrade's look: the bar, "Updating database. Please Wait...", no field.
    void showMigrationUI();
    void hideMigrationUI();
    // 0 to 100; at 0 the bar runs without an end.
    void showMigrationProgress(double percent);

    // For tests and the shell: the pieces a user sees.
    QLineEdit* passwordField() const { return password_; }
    QPushButton* unlockButton() const { return unlock_; }
    QLabel* errorLabel() const { return error_; }
    bool isWorking() const { return working_; }

public slots:
    void unlock();

signals:
    // The set is loaded in the folder list.
    void unlocked(bool hasFolders);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void unlockSubdb(const DBSubdbRef& subdb, const QVError& error);
    void setWorking(bool working);

    std::function<DBMasterRef()> masterSource_;
    QLineEdit* password_;
    QPushButton* unlock_;
    QLabel* error_;
    QProgressBar* busy_;
    QProgressBar* migration_;
    bool working_ = false;
};

} // namespace qv::ui
