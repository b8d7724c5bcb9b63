// Renders each screen of the assistant and each kind of notification panel, in
// the light and in a dark palette and at twice the scale. With
// QV_SCREENSHOTS_DIR set, the pictures are saved there as PNG files to be
// looked at (e.g. QV_SCREENSHOTS_DIR=build/screenshots build/tests/qv_ui_Screens_test).
#include <QDir>
#include <QLoggingCategory>
#include <QPainter>
#include <QStyleFactory>

#include "ui/UiTestMain.h"
#include "ui/assistant/PasswordAssistant.h"
#include "ui/assistant/QVSetupAssistant.h"
#include "ui/notify/PanelDelivery.h"
#include "ui/notify/ScreenDeliveries.h"
#include "ui/shell/DarkPalette.h"
#include "vault/Locations.h"

using namespace qv;
using namespace qv::ui;

namespace {

QImage render(QWidget* widget, qreal scale) {
    QPixmap pixmap(widget->size() * scale);
    pixmap.setDevicePixelRatio(scale);
    pixmap.fill(Qt::transparent);
    widget->render(&pixmap);
    return pixmap.toImage();
}

} // namespace

class ScreensTest : public QObject {
    Q_OBJECT
    QString dir = qEnvironmentVariable("QV_SCREENSHOTS_DIR");
    int saved = 0;

    void capture(QWidget* widget, const QString& name) {
        QApplication::processEvents();
        for (auto [suffix, scale] : {std::pair{"", 1.0}, std::pair{"@2x", 2.0}}) {
            QImage image = render(widget, scale);
            QVERIFY(!image.isNull());
            QCOMPARE(image.size(), widget->size() * scale);
            if (dir.isEmpty()) continue;
            QVERIFY(image.save(QDir(dir).filePath(name + suffix + ".png")));
            ++saved;
        }
    }

    void captureAll(const QString& theme) {
        QVError error;
        DBMasterRef master = DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), true, &error);
        QVSetupAssistant::setDefaultDatabase(master);
        QPointer<QVSetupAssistant> assistant = QVSetupAssistant::showFirstRun();
        capture(assistant, "assistant-welcome-" + theme);
        assistant->nextButton()->click();
        auto* step = qobject_cast<PasswordAssistant*>(assistant->currentAssistant());
        capture(assistant, "assistant-password-empty-" + theme);
        step->passwordField()->setText("abcdef12");
        step->repeatField()->setText("abcdef1");
        capture(assistant, "assistant-password-typed-" + theme);
        step->repeatField()->setText("abcdef12");
        assistant->nextButton()->click();
        QTRY_VERIFY(step->sheet() && step->sheet()->isVisible());
        capture(step->sheet(), "assistant-sheet-better-" + theme);
        step->sheet()->reject();
        QTRY_VERIFY(!step->sheet());
        step->passwordField()->setText("Correct-Horse.7");
        step->repeatField()->setText("Correct-Horse.7");
        capture(assistant, "assistant-password-strong-" + theme);
        assistant->nextButton()->click();
        QTRY_VERIFY_WITH_TIMEOUT(!step->isWorking(), 30000);
        capture(assistant, "assistant-finished-" + theme);
        delete assistant.data();
        QVSetupAssistant::setDefaultDatabase(nullptr);
        std::filesystem::remove(quillvaneURL(QVLocationDatabase));

        QVNotificationCenter centre;
        centre.setDelay(60);
        installScreenDeliveries(centre, nullptr);
        auto panels = std::dynamic_pointer_cast<PanelDelivery>(centre.delivery(QVNotificationWayBuiltIn));
        centre.postInfo("Unlocked \"Private\".", false);
        centre.postAlert("\"Private\" can't be locked while LibreOffice Writer uses files in it.", false);
        centre.postCritical("Error creating disk image\n\nThere is not enough space on the disk.", false);
        QVNotificationRef progress = centre.postProgress("Encrypting \"Photos\"…", true, false);
        QTRY_COMPARE(centre.notifications().size(), size_t(4));
        QVNotificationCenter::updateProgress(progress, 0.4);
        QApplication::processEvents();
        const char* names[] = {"info", "alert", "critical", "progress"};
        for (size_t i = 0; i < 4; ++i)
            capture(panels->panelFor(centre.notifications()[i]), QString("panel-%1-%2").arg(names[i], theme));
    }

private slots:
    void initTestCase() {
        QLoggingCategory::setFilterRules(QStringLiteral("qt.qpa.*=false"));
        if (!dir.isEmpty()) QVERIFY(QDir().mkpath(dir));
    }
    void lightPalette() { captureAll("light"); }
    void darkPaletteThroughTheStyle() {
        const QPalette before = QApplication::palette();
        QApplication::setPalette(darkPalette());
        captureAll("dark");
        QApplication::setPalette(before);
    }
};

QV_UI_TEST_MAIN(ScreensTest)
#include "Screens_test.moc"
