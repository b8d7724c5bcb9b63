#include "ui/shell/AppDelegate.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QLineEdit>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QSystemTrayIcon>
#include <QTimer>

#include "app/AllFolders.h"
#include "app/Backup.h"
#include "app/FolderList.h"
#include "app/Startup.h"
#include "app/VolumeNotices.h"
#include "automation/ActionsCache.h"
#include "notify/QVNotificationCenter.h"
#include "tasks/TaskQueue.h"
#include "toolkit/Log.h"
#include "ui/folders/FolderListScreen.h"
#include "ui/shell/ChangeMasterPassword.h"
#include "ui/shell/CrashLog.h"
#include "ui/shell/PasswordScreen.h"
#include "ui/shell/ShellContent.h"
#include "ui/shell/ShellIcons.h"
#include "ui/shell/ShellScreens.h"
#include "ui/shell/StatusPanel.h"
#include "ui/shell/UpgradeWindow.h"
#include "ui/shell/WindowGeometry.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

namespace qv::ui {

namespace {

AppDelegate* theDelegate = nullptr;
constexpr int kNumberedFolders = 6;

QString folderName(const QVRecordRef& face) {
    const std::string path = QVFolderMountpointPath(FolderFaceRef{face}.folder().as<QVRecord>());
    const size_t slash = path.find_last_of('/');
    return QString::fromStdString(slash == std::string::npos ? path : path.substr(slash + 1));
}

} // namespace

AppDelegate::AppDelegate(QObject* parent) : QObject(parent) {
    theDelegate = this;
    content_ = new ShellContent;
    content_->passwordScreen()->setMasterSource([this] { return master_; });
    connect(content_->passwordScreen(), &PasswordScreen::unlocked, this, [this] { unlocked(); });
    connect(content_, &ShellContent::screenChanged, this, &AppDelegate::validateUserInterfaceItems);
    makeActions();
}

AppDelegate::~AppDelegate() {
    if (theDelegate == this) theDelegate = nullptr;
    delete tray_;
    delete menu_;
    // The content goes with the window that holds it.
    if (panel_ || window_) {
        delete panel_;
        delete window_;
    } else {
        delete content_;
    }
}

AppDelegate* AppDelegate::delegate() { return theDelegate; }

QWidget* AppDelegate::currentWindow() const {
    if (mode_ == ShellMode::Panel) return panel_;
    return window_;
}

bool AppDelegate::applicationDidFinishLaunching(int* exitCode) {
    *exitCode = 0;
    installCrashLogging();
    setStatusText(QString());
    registerQuillvaneDefaults();

    mode_ = chooseShellMode(QVUserDefaults::standardUserDefaults().integerForKey("QVWindowMode"),
                            QSystemTrayIcon::isSystemTrayAvailable());
    // Asked for, the tray icon is made even without a tray: a tray host that
    // comes up later shows it.
    if (QVUserDefaults::standardUserDefaults().integerForKey("QVWindowMode") == 0) makeTrayIcon();
    if (mode_ == ShellMode::Panel)
        setUpPanel();
    else
        setUpWindow();
    okToBackup_ = false;
    (void)QVAppOperationQueue();

    QVError error;
    const QVLaunchResult launch = QVOpenMasterDatabaseAtLaunch(&error);
    if (!launch.master) {
        const bool newer = launch.errorTitle && std::string(launch.errorTitle) == QVInvalidDatabaseVersionTitle;
        QMessageBox box(newer ? QMessageBox::Warning : QMessageBox::Critical,
                        tr(launch.errorTitle ? launch.errorTitle : QVFailedToCreateDatabaseTitle),
                        QString::fromStdString(error.description));
        box.addButton(newer ? tr("Quit") : tr("OK"), QMessageBox::AcceptRole);
        box.exec();
        *exitCode = 1;
        return false;
    }
    master_ = launch.master;
    content_->showPasswordScreen();
    if (!launch.databaseExisted) firstRun();

    QVNotificationCenter::defaultCenter().setUserDefaultsPreferencesProvider();
    installNotificationDeliveries(tray_);
    volumeNotices_ = std::make_unique<QVVolumeNotices>();
    volumeNotices_->start();
    ActionsCache::actionsCache().loadFromDisk();
    if (launch.databaseExisted && launch.needsUpgrade) upgradeAtStart();
    connect(qApp, &QCoreApplication::aboutToQuit, this, &AppDelegate::applicationWillTerminate);
    validateUserInterfaceItems();
    // A moment for the tray host to place the icon, so the panel opens beside it.
    // On a first run the assistant comes alone; the panel follows it (firstRun).
    if (mode_ == ShellMode::Panel && showPanelAtStart_ && launch.databaseExisted)
        QTimer::singleShot(300, this, &AppDelegate::displayPopover);
    return true;
}

void AppDelegate::firstRun() {
    showSetupAssistant(currentWindow(), master_, [this](bool setCreated) {
        if (!setCreated) return;
        QVError error;
        if (DBMasterRef reloaded = reloadMasterDB(&error)) master_ = reloaded;
        reopen();
    });
}

void AppDelegate::upgradeAtStart() {
    auto* upgrade = new UpgradeWindow(master_, content_->passwordScreen(), nullptr);
    upgrade->start([this](DBMasterRef master) {
        if (master) master_ = master;
    });
}

void AppDelegate::applicationWillTerminate() {
    saveWindowGeometry(window_);
    QVUserDefaults::standardUserDefaults().synchronize();
    if (okToBackup_) backupQuillvaneDatabase();
}

// ------------------------------------------------------------------ windows

void AppDelegate::makeTrayIcon() {
    tray_ = new QSystemTrayIcon(shellIcon(ShellIcon::StatusMenu), this);
    tray_->setToolTip(tr("Quillvane"));
    tray_->setContextMenu(menu_);
    connect(tray_, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason != QSystemTrayIcon::Trigger && reason != QSystemTrayIcon::DoubleClick) return;
        if (panel_ && panel_->isVisible()) {
            panel_->hide();
            return;
        }
        reopen();
    });
    tray_->show();
}

void AppDelegate::setUpPanel() {
    panel_ = new StatusPanel(content_);
    panel_->installEventFilter(this);
    panel_->addActions(menu_->actions());
    connect(panel_, &StatusPanel::visibilityChanged, this, [this](bool visible) {
        if (tray_) tray_->setIcon(shellIcon(visible ? ShellIcon::StatusMenuPressed : ShellIcon::StatusMenu));
        validateUserInterfaceItems();
    });
    QApplication::setQuitOnLastWindowClosed(false);
}

void AppDelegate::setUpWindow() {
    window_ = new QMainWindow;
    window_->setWindowTitle(tr("Quillvane"));
    window_->setWindowIcon(shellIcon(ShellIcon::Application));
    window_->setCentralWidget(content_);
    window_->menuBar()->addMenu(menu_);
    window_->installEventFilter(this);
    window_->resize(420, 560);
    restoreWindowGeometry(window_);
    QApplication::setQuitOnLastWindowClosed(false);
    window_->show();
    content_->passwordScreen()->passwordField()->setFocus();
}

bool AppDelegate::eventFilter(QObject* watched, QEvent* event) {
    // The commands' shortcuts follow the folders as they are when the user comes back.
    if (event->type() == QEvent::WindowActivate) validateUserInterfaceItems();
    if (watched == window_ && event->type() == QEvent::Close) {
        // With a tray icon on show the window only hides; otherwise closing it ends the program.
        if (!(tray_ && tray_->isVisible() && QSystemTrayIcon::isSystemTrayAvailable())) qApp->quit();
        saveWindowGeometry(window_);
    }
    return QObject::eventFilter(watched, event);
}

void AppDelegate::reopen() {
    if (mode_ == ShellMode::Window && window_) {
        window_->showNormal();
        window_->raise();
        window_->activateWindow();
        return;
    }
    displayPopover();
}

void AppDelegate::displayPopover() {
    if (mode_ != ShellMode::Panel || !panel_) return;
    panel_->showBeside(tray_ ? tray_->geometry() : QRect());
}

void AppDelegate::closePopover() {
    if (panel_) panel_->hide();
}

// ------------------------------------------------------------------ state

bool AppDelegate::isLocked() const { return content_->isLocked(); }

bool AppDelegate::folderListIsTopController() const { return content_->folderListIsOnTop(); }

bool AppDelegate::canAutolock() const {
    if (panel_ && (panel_->isVisible() || panel_->isAnchored())) return false;
    return QVAppOperationQueue().operationCount() == 0;
}

bool AppDelegate::lockAllEnabled() const {
    return folderListIsTopController() && !QVFoldersInLockedState(false).empty();
}

bool AppDelegate::unlockAllEnabled() const {
    return folderListIsTopController() && !QVFoldersInLockedState(true).empty();
}

bool AppDelegate::enableFolderNumber(int number) const {
    return !isLocked() && number >= 1 && FolderList::singleton().faces().size() >= size_t(number);
}

void AppDelegate::setStatusText(const QString& text, const QColor& color) { content_->setStatusText(text, color); }

// ------------------------------------------------------------------ commands

void AppDelegate::unlocked() {
    QVLogInfo("the window is unlocked");
    okToBackup_ = true;
    validateUserInterfaceItems();
}

void AppDelegate::lockWindow() {
    if (isLocked()) return;
    content_->showPasswordScreen();
    FolderList::singleton().returnSubDB();
    QVLogInfo("the window is locked");
    validateUserInterfaceItems();
}

void AppDelegate::lockAllFoldersAction() { QVLockAllFolders(); }

void AppDelegate::unlockAllFoldersAction() { QVUnlockAllFolders(); }

void AppDelegate::changePasswordAction() {
    const DBSubdbRef subdb = FolderList::singleton().subdb();
    if (!subdb || QApplication::activeModalWidget()) return;
    auto* dialog = new ChangeMasterPassword(master_, subdb, currentWindow());
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    if (panel_) {
        panel_->setModalShown(true);
        connect(dialog, &QDialog::finished, panel_, [panel = panel_] { panel->setModalShown(false); });
    }
    dialog->open();
}

void AppDelegate::addFolderAction() {
    if (isLocked()) return;
    reopen();
    content_->folderListScreen()->addFolder();
}

void AppDelegate::folderNumberAction(int number) {
    if (!enableFolderNumber(number)) return;
    const QVRecordRef face = FolderList::singleton().faces()[size_t(number - 1)];
    FolderFaceRef ff{face};
    // The row's switch flips `locked` before it asks; the menu does the same.
    ff.setLocked(Value(!ff.locked().toBool()));
    FolderList::singleton().toggleFolderLockOfFolderFace(face);
}

void AppDelegate::makeActions() {
    menu_ = new QMenu(tr("&Quillvane"));
    QAction* show = menu_->addAction(tr("&Show Quillvane"), this, &AppDelegate::reopen);
    show->setIcon(shellIcon(ShellIcon::Application));
    menu_->addSeparator();
    lockWindow_ = menu_->addAction(tr("Lock &Window"), QKeySequence(tr("Ctrl+L")), this, &AppDelegate::lockWindow);
    lockAll_ = menu_->addAction(tr("&Lock All Folders"), QKeySequence(tr("Ctrl+Shift+L")), this,
                                &AppDelegate::lockAllFoldersAction);
    unlockAll_ = menu_->addAction(tr("&Unlock All Folders"), QKeySequence(tr("Ctrl+Shift+U")), this,
                                  &AppDelegate::unlockAllFoldersAction);
    changePassword_ = menu_->addAction(tr("&Change Password…"), this, &AppDelegate::changePasswordAction);
    addFolder_ = menu_->addAction(tr("&Add Folder…"), QKeySequence(tr("Ctrl+O")), this, &AppDelegate::addFolderAction);
    menu_->addSeparator();
    for (int number = 1; number <= kNumberedFolders; ++number) {
        QAction* action = menu_->addAction(tr("Folder %1").arg(number), QKeySequence(tr("Ctrl+%1").arg(number)), this,
                                           [this, number] { folderNumberAction(number); });
        folderActions_.push_back(action);
    }
    menu_->addSeparator();
    menu_->addAction(tr("&Quit Quillvane"), QKeySequence::Quit, qApp, &QApplication::quit);
    connect(menu_, &QMenu::aboutToShow, this, &AppDelegate::validateUserInterfaceItems);
}

void AppDelegate::validateUserInterfaceItems() {
    lockWindow_->setEnabled(!isLocked());
    lockAll_->setEnabled(lockAllEnabled());
    unlockAll_->setEnabled(unlockAllEnabled());
    changePassword_->setEnabled(FolderList::singleton().subdb() && !QApplication::activeModalWidget());
    addFolder_->setEnabled(!isLocked() && !QApplication::activeModalWidget());
    const std::vector<QVRecordRef>& faces = FolderList::singleton().faces();
    for (int number = 1; number <= kNumberedFolders; ++number) {
        QAction* action = folderActions_[size_t(number - 1)];
        const bool enabled = enableFolderNumber(number);
        action->setEnabled(enabled);
        action->setVisible(enabled || number == 1);
        if (enabled) {
            const QVRecordRef& face = faces[size_t(number - 1)];
            const bool locked = FolderFaceRef{face}.locked().toBool();
            action->setText((locked ? tr("Unlock “%1”") : tr("Lock “%1”")).arg(folderName(face)));
        } else {
            action->setText(tr("Folder %1").arg(number));
        }
    }
}

} // namespace qv::ui
