#pragma once
// The application object that every screen reaches for: it holds the master
// database, decides at start which screen comes first, owns the tray icon and
// its panel or the stand-alone window, and carries the application's commands
// (lock the window, lock or unlock all folders, change the password, the
// numbered folders). Locking the window hides the folders' set, never the
// folders themselves: mounted images stay mounted, also when the program ends.
#include <QColor>
#include <QObject>
#include <memory>
#include <vector>

#include "ui/shell/WindowMode.h"
#include "vault/DBMaster.h"

class QAction;
class QMainWindow;
class QMenu;
class QSystemTrayIcon;
class QWidget;

namespace qv {
class QVVolumeNotices;
} // namespace qv

namespace qv::ui {

class ShellContent;
class StatusPanel;

class AppDelegate : public QObject {
    Q_OBJECT
public:
    explicit AppDelegate(QObject* parent = nullptr);
    ~AppDelegate() override;
    // The one made last, while it lives.
    static AppDelegate* delegate();

    // Whether the panel opens once at start (a start from the application
    // menu), or the tray icon alone comes (a start at login: --hidden).
    void setShowPanelAtStart(bool show) { showPanelAtStart_ = show; }
    // The launch sequence. Answers false when the program must end (after
    // its alert has been shown), with the exit status in *exitCode.
    bool applicationDidFinishLaunching(int* exitCode);
    // Synchronises the settings, remembers the window, and backs the master
    // file up when a set was unlocked during the run.
    void applicationWillTerminate();

    DBMasterRef dbmaster() const { return master_; }
    ShellMode mode() const { return mode_; }
    ShellContent* content() const { return content_; }
    QWidget* currentWindow() const;
    StatusPanel* panel() const { return panel_; }
    QSystemTrayIcon* trayIcon() const { return tray_; }
    bool okToBackup() const { return okToBackup_; }

    bool isLocked() const;
    bool folderListIsTopController() const;
    bool canAutolock() const;
    bool lockAllEnabled() const;
    bool unlockAllEnabled() const;
    bool enableFolderNumber(int number) const;

    void setStatusText(const QString& text, const QColor& color = QColor());

public slots:
    void lockWindow();
    void lockAllFoldersAction();
    void unlockAllFoldersAction();
    void changePasswordAction();
    // The folder chooser of the folder list, over the panel or window.
    void addFolderAction();
    // Toggles the lock of the folder at `number` (1 to 6) in the list.
    void folderNumberAction(int number);
    // A second start, `qv show`, the application menu: the window comes
    // forward, or the panel opens.
    void reopen();
    void displayPopover();
    // Closes the panel (before a rescue asks where to save, say); its anchor stays.
    void closePopover();
    // Enables the commands by the state they need.
    void validateUserInterfaceItems();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void makeActions();
    void setUpPanel();
    void setUpWindow();
    void makeTrayIcon();
    void unlocked();
    void firstRun();
    void upgradeAtStart();

    ShellMode mode_ = ShellMode::Window;
    DBMasterRef master_;
    ShellContent* content_ = nullptr;
    StatusPanel* panel_ = nullptr;
    QMainWindow* window_ = nullptr;
    QSystemTrayIcon* tray_ = nullptr;
    QMenu* menu_ = nullptr;
    QAction* lockWindow_ = nullptr;
    QAction* lockAll_ = nullptr;
    QAction* unlockAll_ = nullptr;
    QAction* changePassword_ = nullptr;
    QAction* addFolder_ = nullptr;
    std::vector<QAction*> folderActions_;
    std::unique_ptr<QVVolumeNotices> volumeNotices_;
    bool okToBackup_ = false;
    bool showPanelAtStart_ = true;
};

} // namespace qv::ui
