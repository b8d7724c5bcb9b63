// The password screen against a real master file: a wrong password, a right
// one, an empty field, and a master file that vanished.
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <filesystem>

#include "app/FolderList.h"
#include "ui/UiTestMain.h"
#include "ui/shell/PasswordScreen.h"
#include "ui/shell/ShellTestSupport.h"

using namespace qv;
using namespace qv::ui;

class PasswordScreenTest : public QObject {
    Q_OBJECT
    DBMasterRef master;
    PasswordScreen* screen = nullptr;

    void type(const QString& text) {
        screen->passwordField()->setText(text);
        QTest::mouseClick(screen->unlockButton(), Qt::LeftButton);
    }

private slots:
    void initTestCase() {
        master = test::makeMasterFile({"right horse", "another set"});
        QVERIFY(master);
    }
    void init() {
        screen = new PasswordScreen;
        screen->setMasterSource([this] { return master; });
        screen->show();
        QVERIFY(QTest::qWaitForWindowExposed(screen));
    }
    void cleanup() {
        FolderList::singleton().returnSubDB();
        delete screen;
    }

    void wrongPasswordShowsTheErrorAndKeepsTheText() {
        QSignalSpy unlocked(screen, &PasswordScreen::unlocked);
        type(QStringLiteral("wrong horse"));
        QVERIFY(screen->isWorking());
        QVERIFY(!screen->unlockButton()->isEnabled());
        QTRY_VERIFY_WITH_TIMEOUT(!screen->isWorking(), 10000);
        QVERIFY(screen->errorLabel()->isVisible());
        QCOMPARE(screen->passwordField()->text(), QStringLiteral("wrong horse"));
        QVERIFY(screen->unlockButton()->isEnabled());
        QCOMPARE(unlocked.count(), 0);
        QVERIFY(!FolderList::singleton().subdb());
    }

    void rightPasswordEmptiesTheFieldAndLoadsTheSet() {
        QSignalSpy unlocked(screen, &PasswordScreen::unlocked);
        type(QStringLiteral("wrong"));
        QTRY_VERIFY_WITH_TIMEOUT(!screen->isWorking(), 10000);
        type(QStringLiteral("right horse"));
        QTRY_COMPARE_WITH_TIMEOUT(unlocked.count(), 1, 10000);
        QCOMPARE(unlocked.at(0).at(0).toBool(), false); // the set has no folders: the empty list
        QVERIFY(screen->passwordField()->text().isEmpty());
        QVERIFY(!screen->errorLabel()->isVisible());
        QVERIFY(FolderList::singleton().subdb());
    }

    void anEmptyFieldDoesNothing() {
        QSignalSpy unlocked(screen, &PasswordScreen::unlocked);
        type(QString());
        QVERIFY(!screen->isWorking());
        QTest::keyClick(screen->passwordField(), Qt::Key_Return);
        QVERIFY(!screen->isWorking());
        QVERIFY(!screen->errorLabel()->isVisible());
        QCOMPARE(unlocked.count(), 0);
    }

    void aVanishedMasterFileIsNotRead() {
        const std::string file = quillvaneURL(QVLocationDatabase);
        std::filesystem::rename(file, file + ".away");
        type(QStringLiteral("right horse"));
        const bool started = screen->isWorking();
        std::filesystem::rename(file + ".away", file);
        QVERIFY(!started);
        QCOMPARE(screen->passwordField()->text(), QStringLiteral("right horse"));
        QVERIFY(!FolderList::singleton().subdb());
    }

    void theUpgradeLookHidesTheField() {
        screen->showMigrationUI();
        QVERIFY(!screen->passwordField()->isVisible());
        QVERIFY(screen->errorLabel()->isVisible());
        screen->hideMigrationUI();
        QVERIFY(screen->passwordField()->isVisible());
        QVERIFY(!screen->errorLabel()->isVisible());
    }
};

QV_UI_TEST_MAIN(PasswordScreenTest)
#include "PasswordScreen_test.moc"
