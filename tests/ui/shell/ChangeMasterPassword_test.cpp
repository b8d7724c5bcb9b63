// Changing the password: the refusals (empty, the two differ, a password that
// opens a set already, this one's own included) and a change that takes.
#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>

#include "ui/UiTestMain.h"
#include "ui/shell/ChangeMasterPassword.h"
#include "ui/shell/ShellTestSupport.h"

using namespace qv;
using namespace qv::ui;

class ChangeMasterPasswordTest : public QObject {
    Q_OBJECT
    DBMasterRef master;

    // Types the two fields and presses Change; answers whether the dialog accepted.
    bool submit(ChangeMasterPassword& dialog, const QString& password, const QString& again) {
        dialog.newField()->setText(password);
        dialog.againField()->setText(again);
        QTest::mouseClick(dialog.buttons()->button(QDialogButtonBox::Ok), Qt::LeftButton);
        if (!QTest::qWaitFor([&] { return !dialog.isWorking(); }, 15000)) return false;
        return dialog.result() == QDialog::Accepted;
    }

private slots:
    void initTestCase() {
        master = test::makeMasterFile({"mine", "someone else's"});
        QVERIFY(master);
    }

    void refusals() {
        QVError error;
        DBSubdbRef mine = master->getSubDBWithPassword("mine", &error);
        QVERIFY(mine);
        ChangeMasterPassword dialog(master, mine);
        dialog.show();

        QVERIFY(!submit(dialog, QString(), QString()));
        QCOMPARE(dialog.errorLabel()->text(), ChangeMasterPassword::tr("The password can't be empty."));
        QVERIFY(!submit(dialog, QStringLiteral("new one"), QStringLiteral("new onf")));
        QCOMPARE(dialog.errorLabel()->text(), ChangeMasterPassword::tr("The two passwords differ."));
        const QString inUse = ChangeMasterPassword::tr("This password is in use already. Please choose another one.");
        QVERIFY(!submit(dialog, QStringLiteral("someone else's"), QStringLiteral("someone else's")));
        QCOMPARE(dialog.errorLabel()->text(), inUse);
        QVERIFY(!submit(dialog, QStringLiteral("mine"), QStringLiteral("mine")));
        QCOMPARE(dialog.errorLabel()->text(), inUse);
        QVERIFY(dialog.isVisible());
        QVERIFY(master->hasSubDbWithPassword("mine"));
        master->returnSubDB(mine);
    }

    void aFreshPasswordTakes() {
        QVError error;
        DBSubdbRef mine = master->getSubDBWithPassword("mine", &error);
        QVERIFY(mine);
        ChangeMasterPassword dialog(master, mine);
        dialog.show();
        QVERIFY(submit(dialog, QStringLiteral("my new one"), QStringLiteral("my new one")));
        master->returnSubDB(mine);
        QVERIFY(master->hasSubDbWithPassword("my new one"));
        QVERIFY(!master->hasSubDbWithPassword("mine"));
        QVERIFY(master->hasSubDbWithPassword("someone else's"));
    }
};

QV_UI_TEST_MAIN(ChangeMasterPasswordTest)
#include "ChangeMasterPassword_test.moc"
