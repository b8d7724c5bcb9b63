// Pictures of the folder list for a person to look at: with QV_SCREENSHOTS_DIR
// set, the screen with folders in each state (locked, unlocked, busy, in error)
// and the empty list are saved as PNGs, in a light and a dark palette, at 1x
// and 2x. Without it the test is skipped.
#include <QDir>
#include <QLineEdit>
#include <QStyle>
#include <QStyleFactory>

#include "app/FolderList.h"
#include "ui/UiTestMain.h"
#include "ui/folders/FolderInfoPage.h"
#include "ui/folders/FolderListScreen.h"
#include "ui/shell/DarkPalette.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

using namespace qv;
using namespace qv::ui;

class FolderScreenshotsTest : public QObject {
    Q_OBJECT

    QString dir;

    void save(QWidget* widget, const QString& name) {
        for (const qreal scale : {1.0, 2.0}) {
            QPixmap picture(widget->size() * scale);
            picture.setDevicePixelRatio(scale);
            widget->render(&picture);
            const QString file = QStringLiteral("%1/%2%3.png").arg(dir, name, scale > 1 ? "@2x" : "");
            QVERIFY2(picture.save(file), qPrintable(file));
        }
    }

private slots:
    void initTestCase() {
        dir = qEnvironmentVariable("QV_SCREENSHOTS_DIR");
        if (dir.isEmpty()) QSKIP("QV_SCREENSHOTS_DIR is not set");
        QVERIFY(QDir().mkpath(dir));
        QVERIFY(registerQuillvaneDefaults());
        QApplication::setStyle(QStyleFactory::create("Fusion"));
    }

    void folderList() {
        const QVRecordRef storage =
            QVStorageCreate("Default", URLValue{QDir::home().filePath("storage").toStdString()});
        std::vector<QVRecordRef> folders;
        for (const char* name : {"Documents", "Projects", "Photos from the summer holidays 2025", "Old Taxes"}) {
            QDir::home().mkpath(name);
            folders.push_back(QVFolderCreate(storage, URLValue{QDir::home().filePath(name).toStdString()}));
            FolderRef{folders.back()}.setPosition(Value(int64_t(folders.size())));
        }
        FolderRef{folders[3]}.setMountpoint(Value(URLValue{QDir::home().filePath("Gone/Old Taxes").toStdString()}));
        FolderList& list = FolderList::singleton();
        list.loadSubdb(DBSubdb::subdbWithFolders(folders, "pw"));
        const auto& faces = list.faces();
        applyFacePresentation(faces[0], {.percentage = 0.31, .status = std::string("1.6 GB of 5.1 GB used")});
        applyFacePresentation(faces[1],
                              {.percentage = 0.72, .status = std::string("7.2 GB of 10 GB used"), .locked = false});
        applyFacePresentation(faces[2],
                              {.percentage = 0.42, .status = std::string("Encrypting... 42%"), .cancelable = true});

        for (const bool dark : {false, true}) {
            QApplication::setPalette(dark ? darkPalette() : QApplication::style()->standardPalette());
            FolderListScreen screen;
            screen.resize(440, 340);
            screen.show();
            QVERIFY(QTest::qWaitForWindowExposed(&screen));
            auto* search = screen.findChild<QLineEdit*>("folderSearch");
            QTest::keyClick(search, Qt::Key_Escape);
            QTest::keyClick(search, Qt::Key_Down);
            QTest::keyClick(search, Qt::Key_Down); // the second row selected
            save(&screen, dark ? "folder-list-dark" : "folder-list-light");

            FolderInfoPage info(faces[0], &screen);
            info.show();
            QVERIFY(QTest::qWaitForWindowExposed(&info));
            save(&info, dark ? "folder-info-dark" : "folder-info-light");
        }
        list.returnSubDB();
        for (const bool dark : {false, true}) {
            QApplication::setPalette(dark ? darkPalette() : QApplication::style()->standardPalette());
            list.loadSubdb(DBSubdb::subdbWithFolders({}, "pw"));
            FolderListScreen screen;
            screen.resize(440, 340);
            screen.show();
            QVERIFY(QTest::qWaitForWindowExposed(&screen));
            save(&screen, dark ? "empty-list-dark" : "empty-list-light");
            list.returnSubDB();
        }
    }
};

QV_UI_TEST_MAIN(FolderScreenshotsTest)
#include "FolderScreenshots_test.moc"
