// The built-in panels as the user meets them: where they stand, how long they
// live, what holds and what dismisses them, and the blocking question.
#include <QClipboard>
#include <QEnterEvent>
#include <QLoggingCategory>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QTimer>

#include "disk/RescueFrontEnd.h"
#include "notify/AlertPanel.h"
#include "notify/QVNotificationColor.h"
#include "ui/UiTestMain.h"
#include "ui/notify/PanelDelivery.h"
#include "ui/notify/RescueScreens.h"
#include "ui/notify/ScreenDeliveries.h"

using namespace qv;
using namespace qv::ui;

namespace {

class FixedPreferences : public PreferencesProvider {
public:
    std::map<std::string, Value> values;
    Value fetchValueForPreference(const std::string& key) override {
        auto it = values.find(key);
        return it == values.end() ? Value() : it->second;
    }
};

QVRect availableScreen() {
    const QRect r = QGuiApplication::primaryScreen()->availableGeometry();
    return {double(r.x()), double(r.y()), double(r.width()), double(r.height())};
}

// Window opacity is kept in steps of 1/255.
bool shownFully(QWidget* panel) { return qAbs(panel->windowOpacity() - QVNotificationPanel::kShownOpacity) < 0.01; }

// Answers the next message box with its default button (Enter).
void answerNextBoxWithDefault() {
    QTimer::singleShot(50, [] {
        for (QWidget* w : QApplication::topLevelWidgets())
            if (auto* box = qobject_cast<QMessageBox*>(w); box && box->isVisible()) box->defaultButton()->click();
    });
}

} // namespace

class NotificationPanelsTest : public QObject {
    Q_OBJECT
    std::unique_ptr<QVNotificationCenter> centre;
    std::shared_ptr<PanelDelivery> panels;

    QVNotificationPanel* panelOf(const QVNotificationRef& n) { return panels->panelFor(n); }
    QVNotificationPanel* lastPanel() {
        auto live = centre->notifications();
        return live.empty() ? nullptr : panelOf(live.back());
    }
    void postInfo(const char* text, bool sticky = false) {
        const size_t before = centre->notifications().size();
        centre->postInfo(text, sticky);
        QTRY_COMPARE(centre->notifications().size(), before + 1);
    }

private slots:
    void initTestCase() {
        // The offscreen platform can't raise windows or set their opacity, and says so each time.
        QLoggingCategory::setFilterRules(QStringLiteral("qt.qpa.*=false"));
    }
    void init() {
        centre = std::make_unique<QVNotificationCenter>();
        installScreenDeliveries(*centre, nullptr);
        panels = std::dynamic_pointer_cast<PanelDelivery>(centre->delivery(QVNotificationWayBuiltIn));
        QVERIFY(panels);
    }
    void cleanup() {
        panels.reset();
        centre.reset();
    }

    void panelsStackDownwardsThenStartANewColumnToTheLeft() {
        centre->setDelay(60);
        for (const char* text : {"one", "two", "three"}) postInfo(text);
        const QVRect screen = availableScreen();
        auto live = centre->notifications();
        QCOMPARE(live.size(), size_t(3));
        QVRect first = *live[0]->panelFrame();
        QCOMPARE(first.x, screen.right() - 15 - first.width);
        QCOMPARE(first.y, screen.y + 15 + 25);
        for (size_t i = 1; i < live.size(); ++i) {
            QVRect above = *live[i - 1]->panelFrame(), here = *live[i]->panelFrame();
            QCOMPARE(here.x, first.x);
            QCOMPARE(here.y, above.bottom() + 15);
            QCOMPARE(panelOf(live[i])->pos(), QPoint(int(here.x), int(here.y)));
        }
        // A panel too tall for what is left below the third starts a column to its left.
        const double tall = screen.bottom() - live[2]->panelFrame()->bottom();
        QVRect next = centre->availableRectGivenSize(first.width, tall, screen);
        QCOMPARE(next.x, first.x - first.width - 15);
        QCOMPARE(next.y, first.y);
        // A dismissed panel leaves its place to the next one.
        QTest::mouseClick(panelOf(live[0]), Qt::LeftButton);
        QTRY_COMPARE(centre->notifications().size(), size_t(2));
        postInfo("four");
        QCOMPARE(*centre->notifications().back()->panelFrame(), first);
    }

    void panelFadesInAndOutAfterItsLifespan() {
        centre->setDelay(1.0);
        postInfo("short");
        QVNotificationPanel* panel = lastPanel();
        QVERIFY(panel->isVisible());
        QVERIFY(panel->testAttribute(Qt::WA_ShowWithoutActivating));
        QVERIFY(panel->windowFlags() & Qt::FramelessWindowHint);
        QTRY_VERIFY(shownFully(panel));
        QVERIFY(panel->countdownRunning());
        QTRY_VERIFY_WITH_TIMEOUT(centre->notifications().empty(), 4000);
    }

    void stickyPanelStaysUntilClicked() {
        centre->setDelay(0.05);
        postInfo("sticky", true);
        QVNotificationPanel* panel = lastPanel();
        QTest::qWait(400);
        QCOMPARE(centre->notifications().size(), size_t(1));
        QVERIFY(!panel->countdownRunning());
        QPointer<QVNotificationPanel> watched(panel);
        QTest::mouseClick(panel, Qt::LeftButton);
        QTRY_VERIFY(centre->notifications().empty());
        QTRY_VERIFY(watched.isNull());
    }

    void hoverHoldsAPanelAndLeavingGivesBackWhatWasLeft() {
        centre->setDelay(0.4);
        postInfo("hover");
        QVNotificationPanel* panel = lastPanel();
        QTRY_VERIFY(panel->countdownRunning());
        QEnterEvent enter(QPointF(5, 5), QPointF(5, 5), panel->mapToGlobal(QPointF(5, 5)));
        QApplication::sendEvent(panel, &enter);
        QCOMPARE(panel->windowOpacity(), 1.0);
        QVERIFY(!panel->countdownRunning());
        QTest::qWait(700);
        QCOMPARE(centre->notifications().size(), size_t(1));
        QEvent leave(QEvent::Leave);
        QApplication::sendEvent(panel, &leave);
        QVERIFY(shownFully(panel));
        QVERIFY(panel->countdownRunning());
        QVERIFY(panel->countdownRemaining() <= 400);
        QTRY_VERIFY_WITH_TIMEOUT(centre->notifications().empty(), 2000);
    }

    void progressPanelLivesUntilItReachesOne() {
        centre->setDelay(0.1);
        QVNotificationRef handle = centre->postProgress("copying", false, false);
        QTRY_COMPARE(centre->notifications().size(), size_t(1));
        QVNotificationPanel* panel = panelOf(handle);
        auto* bar = panel->findChild<QProgressBar*>();
        QVERIFY(bar);
        QCOMPARE(bar->maximum(), 0); // busy while indeterminate
        QTest::qWait(400);
        QVERIFY(!panel->countdownRunning());
        QVNotificationCenter::updateProgress(handle, 0.5);
        QVNotificationCenter::updateProgress(handle, 1.01); // refused
        QTest::qWait(300);
        QCOMPARE(handle->progress(), 0.5);
        QCOMPARE(centre->notifications().size(), size_t(1));
        QVNotificationCenter::updateProgress(handle, 1.0);
        QTRY_COMPARE(bar->value(), bar->maximum());
        QVERIFY(bar->maximum() > 0);
        QTRY_VERIFY_WITH_TIMEOUT(centre->notifications().empty(), 2000);
    }

    void panelsTakeTheirColoursFromThePreferences() {
        auto prefs = std::make_shared<FixedPreferences>();
        prefs->values["QVAlertBGColor"] = Value(std::string("#ff0000"));
        centre->setPreferencesProvider(prefs);
        centre->setDelay(60);
        centre->postAlert("red", false);
        centre->postCritical("default", false);
        QTRY_COMPARE(centre->notifications().size(), size_t(2));
        auto live = centre->notifications();
        QCOMPARE(panelOf(live[0])->grab().toImage().pixel(6, 6), qRgb(255, 0, 0));
        QCOMPARE(panelOf(live[1])->grab().toImage().pixel(6, 6), QColor::fromRgbF(0.538f, 0.063f, 0.12f).rgb());
    }

    void trayWayWithoutATrayShowsPanels() {
        auto prefs = std::make_shared<FixedPreferences>();
        prefs->values["QVNotificationType"] = Value(int(QVNotificationWayTray));
        centre->setPreferencesProvider(prefs);
        centre->setDelay(60);
        QSystemTrayIcon hidden; // never shown: no balloon possible
        installScreenDeliveries(*centre, &hidden);
        panels = std::dynamic_pointer_cast<PanelDelivery>(centre->delivery(QVNotificationWayBuiltIn));
        centre->postAlert("through the panels", false);
        QTRY_COMPARE(centre->notifications().size(), size_t(1));
        QVERIFY(panelOf(centre->notifications()[0]));
    }

    void yesNoIsABlockingQuestionWithItsDefault() {
        centre->setMuting(true); // the question ignores muting
        answerNextBoxWithDefault();
        QCOMPARE(centre->postYesNo("Go on?", true), true);
        answerNextBoxWithDefault();
        QCOMPARE(centre->postYesNo("Go on?", false), false);
    }

    void aTasksAlertComesAsAMessageBoxAfterItsDelay() {
        installScreenDeliveries(nullptr);
        QVShowAlertPanelLater("Error creating disk image", "There is not enough space.");
        auto findBox = []() -> QMessageBox* {
            for (QWidget* w : QApplication::topLevelWidgets())
                if (auto* box = qobject_cast<QMessageBox*>(w);
                    box && box->isVisible() && box->text() == "Error creating disk image")
                    return box;
            return nullptr;
        };
        QTest::qWait(50);
        QVERIFY(!findBox()); // not before 0.2 seconds
        QTRY_VERIFY(findBox());
        QCOMPARE(findBox()->informativeText(), QStringLiteral("There is not enough space."));
        QVERIFY(QVNotificationCenter::defaultCenter().notifications().empty());
        findBox()->close();
        // The rescue's hooks are the screens'.
        QVERIFY(QVCurrentClipboardWriter() && QVCurrentSavePanel() && QVCurrentSecretAlert());
        QVERIFY(QVCurrentClipboardWriter()("from the rescue"));
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("from the rescue"));
    }

    void clipboardTakesAndClearsThePassword() {
        QVERIFY(copyPasswordToClipboard("s3cret pass"));
        QCOMPARE(QGuiApplication::clipboard()->text(), QStringLiteral("s3cret pass"));
        QVERIFY(copyPasswordToClipboard(""));
        QVERIFY(QGuiApplication::clipboard()->text().isEmpty());
    }
};

QV_UI_TEST_MAIN(NotificationPanelsTest)
#include "NotificationPanels_test.moc"
