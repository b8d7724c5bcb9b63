// The application at start on a desktop without a tray (the offscreen
// platform has none): the window, never the panel; the password screen first;
// locking the window; the backup at quitting only after an unlock.
#include <QLineEdit>
#include <QMainWindow>
#include <QPushButton>
#include <QSystemTrayIcon>
#include <filesystem>

#include "app/FolderList.h"
#include "ui/UiTestMain.h"
#include "ui/shell/AppDelegate.h"
#include "ui/shell/PasswordScreen.h"
#include "ui/shell/ShellContent.h"
#include "ui/shell/ShellTestSupport.h"
#include "ui/shell/StatusPanel.h"
#include "ui/shell/WindowMode.h"
#include "vault/UserDefaults.h"

using namespace qv;
using namespace qv::ui;

class AppDelegateTest : public QObject {
    Q_OBJECT

    static size_t backups() {
        std::error_code ec;
        size_t count = 0;
        for (auto it = std::filesystem::directory_iterator(quillvaneURL(QVLocationBackups), ec);
             !ec && it != std::filesystem::directory_iterator(); ++it)
            ++count;
        return count;
    }

private slots:
    void theModeComesFromTheSettingAndTheTray() {
        QCOMPARE(chooseShellMode(0, true), ShellMode::Panel);
        QCOMPARE(chooseShellMode(0, false), ShellMode::Window);
        QCOMPARE(chooseShellMode(1, true), ShellMode::Window);
        QCOMPARE(chooseShellMode(7, false), ShellMode::Window);
    }

    void thePanelGoesBesideTheIconOrTopRight() {
        const QRect screen(0, 30, 1920, 1050);
        const QSize size(360, 480);
        QCOMPARE(StatusPanel::placement(size, QRect(), screen), QPoint(1920 - 360 - 4, 34));
        // An icon in the top bar: below it, centred, kept on the screen.
        QCOMPARE(StatusPanel::placement(size, QRect(1000, 4, 22, 22), screen), QPoint(1010 - 180, 30));
        QCOMPARE(StatusPanel::placement(size, QRect(1900, 4, 22, 22), screen).x(), 1920 - 360);
        // An icon in a bottom panel: above it.
        QCOMPARE(StatusPanel::placement(size, QRect(500, 1060, 22, 22), screen), QPoint(510 - 180, 1060 - 4 - 480));
    }

    void withoutATrayTheWindowComesWithThePasswordScreen() {
        QVERIFY(test::makeMasterFile({"pass word", "another"}));
        registerQuillvaneDefaults();
        QVUserDefaults::standardUserDefaults().setObject("QVWindowMode", Value(int64_t(0)));
        QVERIFY(!QSystemTrayIcon::isSystemTrayAvailable());

        AppDelegate delegate;
        int exitCode = -1;
        QVERIFY(delegate.applicationDidFinishLaunching(&exitCode));
        QCOMPARE(delegate.mode(), ShellMode::Window);
        QVERIFY(delegate.currentWindow());
        QVERIFY(delegate.currentWindow()->isVisible());
        QVERIFY(!delegate.panel());
        QVERIFY(delegate.isLocked());
        QVERIFY(!delegate.enableFolderNumber(1));

        delegate.applicationWillTerminate();
        QCOMPARE(backups(), size_t(0)); // nothing was unlocked: no backup

        PasswordScreen* screen = delegate.content()->passwordScreen();
        screen->passwordField()->setText(QStringLiteral("pass word"));
        QTest::mouseClick(screen->unlockButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(delegate.folderListIsTopController(), 10000);
        QVERIFY(delegate.okToBackup());
        QVERIFY(!delegate.isLocked());

        delegate.lockWindow();
        QVERIFY(delegate.isLocked());
        QVERIFY(!FolderList::singleton().subdb());

        delegate.applicationWillTerminate();
        QCOMPARE(backups(), size_t(1));
        QVERIFY(!QVUserDefaults::standardUserDefaults().stringForKey("QVWindowGeometry").empty());
    }
};

QV_UI_TEST_MAIN(AppDelegateTest)
#include "AppDelegate_test.moc"
