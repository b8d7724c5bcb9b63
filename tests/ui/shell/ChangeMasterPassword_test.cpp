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
    DBSubdbRef mine;
    std::unique_ptr<ChangeMasterPassword> dialog;

    // Types the two fields and presses Change; answers whether the dialog accepted.
    bool submit(const QString& password, const QString& again) {
        dialog->newField()->setText(password);
        dialog->againField()->setText(again);
        QTest::mouseClick(dialog->buttons()->button(QDialogButtonBox::Ok), Qt::LeftButton);
        if (!QTest::qWaitFor([&] { return !dialog->isWorking(); }, 15000)) return false;
        return dialog->result() == QDialog::Accepted;
    }

private slots:
    void initTestCase() {
        master = test::makeMasterFile({"mine", "someone else's"});
        QVERIFY(master);
    }
    // The set of "mine", and the dialog for it on show.
    void init() {
        QVError error;
        mine = master->getSubDBWithPassword("mine", &error);
        QVERIFY(mine);
        dialog = std::make_unique<ChangeMasterPassword>(master, mine);
        dialog->show();
    }
    void cleanup() {
        dialog.reset();
        master->returnSubDB(mine);
    }

    void refusals() {
        QVERIFY(!submit(QString(), QString()));
        QCOMPARE(dialog->errorLabel()->text(), ChangeMasterPassword::tr("The password can't be empty."));
        QVERIFY(!submit(QStringLiteral("new one"), QStringLiteral("new onf")));
        QCOMPARE(dialog->errorLabel()->text(), ChangeMasterPassword::tr("The two passwords differ."));
        const QString inUse = ChangeMasterPassword::tr("This password is in use already. Please choose another one.");
        QVERIFY(!submit(QStringLiteral("someone else's"), QStringLiteral("someone else's")));
        QCOMPARE(dialog->errorLabel()->text(), inUse);
        QVERIFY(!submit(QStringLiteral("mine"), QStringLiteral("mine")));
        QCOMPARE(dialog->errorLabel()->text(), inUse);
        QVERIFY(dialog->isVisible());
        QVERIFY(master->hasSubDbWithPassword("mine"));
    }

    void aFreshPasswordTakes() {
        QVERIFY(submit(QStringLiteral("my new one"), QStringLiteral("my new one")));
        QVERIFY(master->hasSubDbWithPassword("my new one"));
        QVERIFY(!master->hasSubDbWithPassword("mine"));
        QVERIFY(master->hasSubDbWithPassword("someone else's"));
    }
};

QV_UI_TEST_MAIN(ChangeMasterPasswordTest)
#include "ChangeMasterPassword_test.moc"
