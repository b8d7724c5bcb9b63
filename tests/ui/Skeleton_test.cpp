// The screens' library links and runs on the offscreen platform.
#include <QWidget>

#include "ui/UiTestMain.h"

class SkeletonTest : public QObject {
    Q_OBJECT
private slots:
    void widgetShowsOffscreen() {
        QWidget w;
        w.show();
        QVERIFY(QTest::qWaitForWindowExposed(&w));
    }
};

QV_UI_TEST_MAIN(SkeletonTest)
#include "Skeleton_test.moc"
