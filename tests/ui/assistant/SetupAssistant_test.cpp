// The first run through the set-up assistant: its steps and buttons, the
// password step's sheets, and the first Folder Set made in the temporary home.
#include <QLabel>
#include <QPushButton>
#include <QSignalSpy>

#include "ui/UiTestMain.h"
#include "ui/assistant/PasswordAssistant.h"
#include "ui/assistant/QVSetupAssistant.h"
#include "ui/assistant/ThankYouAssistant.h"
#include "ui/assistant/WelcomeAssistant.h"
#include "vault/Locations.h"

using namespace qv;
using namespace qv::ui;

namespace {

// A step as another feature inserts it.
class ExtraStep : public QVBaseAssistant {
public:
    QStringList orderedSteps() const override { return {QStringLiteral("Extra")}; }
};

QStringList listedSteps(QVSetupAssistant* assistant) {
    QStringList titles;
    for (int row = 0; row < assistant->stepList()->count(); ++row) titles << assistant->stepList()->item(row)->text();
    return titles;
}

void clickSheetButton(QMessageBox* sheet, const QString& text) {
    for (QAbstractButton* button : sheet->buttons())
        if (button->text() == text) {
            button->click();
            return;
        }
    QFAIL(qPrintable("no button " + text));
}

} // namespace

class SetupAssistantTest : public QObject {
    Q_OBJECT
    DBMasterRef master;
    QPointer<QVSetupAssistant> assistant;

    PasswordAssistant* passwordStep() { return qobject_cast<PasswordAssistant*>(assistant->assistantAt(1)); }
    void goToPassword() {
        assistant->nextButton()->click();
        QCOMPARE(assistant->currentAssistant(), passwordStep());
    }
    void type(const QString& first, const QString& second) {
        passwordStep()->passwordField()->setText(first);
        passwordStep()->repeatField()->setText(second);
    }
    // Next with the fields as typed; the sheet that comes, if any.
    QMessageBox* pressNext() {
        assistant->nextButton()->click();
        // The first set is checked and made on a worker thread.
        QTest::qWaitFor([this] { return !passwordStep()->isWorking(); }, 30000);
        return passwordStep()->sheet();
    }
    bool setExists(const std::string& password) {
        QVError error;
        DBMasterRef reread = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), false, &error);
        if (!reread) return false;
        DBSubdbRef subdb = reread->getSubDBWithPassword(password, &error);
        if (subdb) reread->returnSubDB(subdb);
        return subdb != nullptr;
    }

private slots:
    void init() {
        QVError error;
        master = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), true, &error);
        QVERIFY2(master, error.description.c_str());
        QVSetupAssistant::setDefaultDatabase(master);
        assistant = QVSetupAssistant::showFirstRun();
        QVERIFY(assistant->isVisible());
    }
    void cleanup() {
        delete assistant.data();
        QVSetupAssistant::setDefaultDatabase(nullptr);
        master.reset();
        std::filesystem::remove(quillvaneURL(QVLocationDatabase));
    }

    void stepsRunInOrderWithTheirButtons() {
        QCOMPARE(listedSteps(assistant), QStringList({"Setup Assistant", "Password", "Finished Setup"}));
        QVERIFY(qobject_cast<WelcomeAssistant*>(assistant->currentAssistant()));
        QCOMPARE(assistant->prevButton()->text(), QStringLiteral("Quit"));
        QCOMPARE(assistant->stepList()->currentRow(), 0);
        goToPassword();
        QCOMPARE(assistant->prevButton()->text(), QStringLiteral("Go Back"));
        QVERIFY(assistant->prevButton()->isEnabled());
        QCOMPARE(assistant->stepList()->currentRow(), 1);
        QVERIFY(passwordStep()->passwordField()->hasFocus() || !assistant->isActiveWindow());
        assistant->prevButton()->click();
        QVERIFY(qobject_cast<WelcomeAssistant*>(assistant->currentAssistant()));
        QCOMPARE(assistant->prevButton()->text(), QStringLiteral("Quit"));

        // Other features put their steps after the password step.
        goToPassword();
        assistant->insertNextAssistant(new ExtraStep);
        QCOMPARE(listedSteps(assistant), QStringList({"Setup Assistant", "Password", "Extra", "Finished Setup"}));
        QVERIFY(assistant->containsAssistantOfClass(ThankYouAssistant::staticMetaObject));
        QCOMPARE(assistant->indexOfAssistantOfClass(PasswordAssistant::staticMetaObject), 1);
        QCOMPARE(assistant->currentAssistant(), passwordStep());
    }

    void liveStrengthAndMatchMark() {
        goToPassword();
        PasswordAssistant* step = passwordStep();
        QVERIFY(step->strengthText()->isHidden());
        QVERIFY(!step->matchShown());
        step->passwordField()->setText("abcd");
        QVERIFY(!step->strengthText()->isHidden());
        QCOMPARE(step->strengthText()->text(), QStringLiteral("Weak"));
        QCOMPARE(step->strengthLevel()->value(), 6);
        QVERIFY(!step->matchShown());
        step->passwordField()->setText("abcdefg123"); // exactly 60
        QCOMPARE(step->strengthText()->text(), QStringLiteral("Good"));
        step->passwordField()->setText("Correct-Horse.7");
        QCOMPARE(step->strengthText()->text(), QStringLiteral("Strong"));
        step->repeatField()->setText("Correct-Horse.");
        QVERIFY(step->matchShown());
        QVERIFY(!step->matchSaysEqual());
        step->repeatField()->setText("Correct-Horse.7");
        QVERIFY(step->matchSaysEqual());
        // Exact strings: a trailing space is a difference.
        step->repeatField()->setText("Correct-Horse.7 ");
        QVERIFY(!step->matchSaysEqual());
    }

    void sheetsKeepTheUserOnThePasswordStep() {
        goToPassword();
        QVERIFY(!pressNext()); // empty: nothing happens
        QCOMPARE(assistant->currentAssistant(), passwordStep());

        type("Correct-Horse.7", "Correct-Horse.8");
        QMessageBox* sheet = pressNext();
        QVERIFY(sheet);
        QCOMPARE(sheet->text(), QStringLiteral("Passwords do not match"));
        clickSheetButton(sheet, "OK");

        type("abcd", "abcd");
        sheet = pressNext();
        QVERIFY(sheet);
        QCOMPARE(sheet->text(), QStringLiteral("Weak Password!"));
        QCOMPARE(sheet->defaultButton()->text(), QStringLiteral("No"));
        clickSheetButton(sheet, "No");

        type("abcdef12", "abcdef12"); // 42
        sheet = pressNext();
        QVERIFY(sheet);
        QCOMPARE(sheet->text(), QStringLiteral("Can you do better?"));
        QCOMPARE(sheet->defaultButton()->text(), QStringLiteral("I'll do better"));
        clickSheetButton(sheet, "I'll do better");
        QTRY_VERIFY(!passwordStep()->sheet());

        QCOMPARE(assistant->currentAssistant(), passwordStep());
        QCOMPARE(master->subDBCount(), size_t(0));
        QVERIFY(!setExists("abcdef12"));
    }

    void aWeakPasswordTakenAnywayMakesTheSet() {
        goToPassword();
        type("abcd", "abcd");
        QMessageBox* sheet = pressNext();
        QVERIFY(sheet);
        clickSheetButton(sheet, "Yes");
        QTRY_VERIFY(qobject_cast<ThankYouAssistant*>(assistant->currentAssistant()));
        QVERIFY(setExists("abcd"));
    }

    void theFirstSetIsMadeSavedAndFoundAgain() {
        QSignalSpy finished(assistant.data(), &QVSetupAssistant::finished);
        goToPassword();
        type("abcdefg123", "abcdefg123"); // a score of 60 passes without a sheet
        QVERIFY(!pressNext());
        QVERIFY(qobject_cast<ThankYouAssistant*>(assistant->currentAssistant()));
        QVERIFY(passwordStep()->passwordField()->text().isEmpty());
        QVERIFY(passwordStep()->repeatField()->text().isEmpty());
        QVERIFY(setExists("abcdefg123"));
        QVERIFY(!setExists("abcdefg124"));
        QVERIFY(!assistant->prevButton()->isVisible());
        QCOMPARE(assistant->nextButton()->text(), QStringLiteral("Close"));
        assistant->nextButton()->click();
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toBool(), true);

        // A second set under the same password is refused.
        assistant = QVSetupAssistant::showFirstRun();
        goToPassword();
        type("abcdefg123", "abcdefg123");
        QMessageBox* sheet = pressNext();
        QVERIFY(sheet);
        QCOMPARE(sheet->text(), QStringLiteral("Password in use"));
        clickSheetButton(sheet, "Close");
        QCOMPARE(assistant->currentAssistant(), passwordStep());
        QCOMPARE(master->subDBCount(), size_t(1));
    }

    void miniFormRunsOneStepThatCanBeCancelled() {
        QVSetupAssistant mini(QVSetupAssistant::Form::Mini);
        mini.setDatabase(master);
        auto* step = new PasswordAssistant;
        step->setCancellable(true);
        mini.addAssistant(step);
        QSignalSpy finished(&mini, &QVSetupAssistant::finished);
        mini.run();
        QVERIFY(!mini.stepList());
        QPushButton* cancel = nullptr;
        for (auto* button : mini.findChildren<QPushButton*>())
            if (button->text() == "Cancel") cancel = button;
        QVERIFY(cancel);
        step->passwordField()->setText("Correct-Horse.7");
        cancel->click();
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toBool(), false);
        QVERIFY(step->passwordField()->text().isEmpty());
        QCOMPARE(master->subDBCount(), size_t(0));
    }

    void closingTheWindowDismissesWithoutASet() {
        QSignalSpy finished(assistant.data(), &QVSetupAssistant::finished);
        QSignalSpy dismissed(assistant.data(), &QVSetupAssistant::setupAssistantWasDismissed);
        assistant->close();
        QCOMPARE(dismissed.count(), 1);
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.at(0).at(0).toBool(), false);
    }
};

QV_UI_TEST_MAIN(SetupAssistantTest)
#include "SetupAssistant_test.moc"
