// The folder list screen over a Folder Set made in the test's home: its keys,
// search, reorder, the lock control with Shift, the empty list, live rows, and
// folders dropped on it. Tasks are recorded, never run.
#include <QAbstractButton>
#include <QDir>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QSignalSpy>
#include <QStackedLayout>
#include <QTimer>
#include <mutex>
#include <thread>

#include "app/FolderList.h"
#include "tasks/BaseFolderTask.h"
#include "toolkit/OperationQueue.h"
#include "ui/UiTestMain.h"
#include "ui/folders/FolderInfoPage.h"
#include "ui/folders/FolderListModel.h"
#include "ui/folders/FolderListScreen.h"
#include "ui/folders/FolderView.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

using namespace qv;
using namespace qv::ui;

class FolderListScreenTest : public QObject {
    Q_OBJECT

    FolderList& list = FolderList::singleton();
    OperationQueue queue;
    QVRecordRef storage;
    std::mutex mutex;
    QStringList queued;
    std::unique_ptr<FolderListScreen> screen;

    OperationRef recording(const QString& kind, const QVRecordRef& face) {
        const QString name =
            QFileInfo(QString::fromStdString(QVFolderMountpointPath(FolderFaceRef{face}.folder().as<QVRecord>())))
                .fileName();
        return BlockOperation::blockOperationWithVoidBlock([this, line = kind + " " + name] {
            std::lock_guard lock(mutex);
            queued << line;
        });
    }
    QStringList tasks() {
        queue.waitUntilAllOperationsAreFinished();
        std::lock_guard lock(mutex);
        QStringList sorted = queued;
        sorted.sort();
        queued.clear();
        return sorted;
    }
    QVRecordRef folder(const QString& name, int64_t position) {
        QDir::home().mkpath(name);
        QVRecordRef f = QVFolderCreate(storage, URLValue{QDir::home().filePath(name).toStdString()});
        FolderRef{f}.setPosition(Value(position));
        return f;
    }
    std::shared_ptr<DBSubdb> show(const QStringList& names) {
        std::vector<QVRecordRef> folders;
        for (int i = 0; i < names.size(); ++i) folders.push_back(folder(names[i], i));
        auto subdb = DBSubdb::subdbWithFolders(folders, "pw");
        list.loadSubdb(subdb);
        screen = std::make_unique<FolderListScreen>();
        screen->resize(420, 360);
        screen->show();
        return subdb;
    }
    QLineEdit* search() { return screen->findChild<QLineEdit*>("folderSearch"); }
    QListView* view() { return screen->findChild<QListView*>("folderRows"); }
    FolderListModel* model() { return static_cast<FolderListModel*>(view()->model()); }
    QString rows() {
        QStringList names;
        for (int r = 0; r < model()->rowCount(); ++r) names << model()->index(r).data().toString();
        return names.join(' ');
    }
    QString page() { return screen->findChild<QStackedLayout*>()->currentWidget()->objectName(); }
    void clickLock(int row, Qt::KeyboardModifiers modifiers) {
        const QRect rect = view()->visualRect(model()->index(row));
        QTest::mouseClick(view()->viewport(), Qt::LeftButton, modifiers,
                          FolderView::layout(rect, view()->font()).lock.center());
    }
    // Drops `path` on the screen and answers the message box it brings up
    // (with `answer`), giving back the box's text; empty when none came.
    QString dropAndAnswer(const QString& path, QMessageBox::StandardButton answer) {
        QString seen;
        QTimer answering;
        connect(&answering, &QTimer::timeout, [&] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                seen = box->text();
                if (QAbstractButton* button = box->button(answer))
                    button->click();
                else
                    box->close();
            }
        });
        answering.start(20);
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(path)});
        QDragEnterEvent enter(QPoint(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(screen.get(), &enter);
        if (!enter.isAccepted()) return QStringLiteral("(not accepted)");
        QDropEvent drop(QPointF(10, 10), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(screen.get(), &drop);
        QTest::qWait(300);
        return seen;
    }

    // Opens the context menu of row `row`, gives back its entries and
    // triggers `entry` if there is one; the refusal that may follow is
    // answered, and its text is the second of the pair.
    std::pair<QStringList, QString> menuAndAnswer(int row, const QString& entry) {
        QStringList entries;
        QString seen;
        QTimer answering;
        connect(&answering, &QTimer::timeout, [&] {
            if (auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget())) {
                QAction* chosen = nullptr;
                for (QAction* action : menu->actions()) {
                    if (action->isSeparator()) continue;
                    entries << action->text();
                    if (action->text() == entry && action->isEnabled()) chosen = action;
                }
                if (chosen) chosen->trigger();
                menu->close();
            } else if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                seen = box->text();
                box->close();
            }
        });
        answering.start(20);
        emit view()->customContextMenuRequested(view()->visualRect(model()->index(row)).center());
        QTest::qWait(400);
        return {entries, seen};
    }

private slots:
    void initTestCase() {
        QVERIFY(registerQuillvaneDefaults());
        storage = QVStorageCreate("Default", URLValue{QDir::home().filePath("storage").toStdString()});
        list.setQueue(&queue);
        list.setTaskMakers({
            .encrypt = [this](const QVRecordRef& f) { return recording("encrypt", f); },
            .decrypt = [this](const QVRecordRef& f) { return recording("decrypt", f); },
            .lock = [this](const QVRecordRef& f) { return recording("lock", f); },
            .unlock = [this](const QVRecordRef& f, bool open) { return recording(open ? "unlock+open" : "unlock", f); },
        });
    }
    void cleanup() {
        screen.reset();
        tasks();
        list.returnSubDB();
        list.search("");
    }

    void keysInTheSearchFieldMoveSelectRestoreAndClear() {
        show({"Alpha", "Beta", "Gamma"});
        QVERIFY(QTest::qWaitForWindowExposed(screen.get()));
        QTRY_VERIFY(search()->hasFocus());
        QTest::keyClick(search(), Qt::Key_Down);
        QCOMPARE(view()->currentIndex().row(), 0);
        for (int i = 0; i < 3; ++i) QTest::keyClick(search(), Qt::Key_Down);
        QCOMPARE(view()->currentIndex().row(), 2); // the last row stays
        QTest::keyClick(search(), Qt::Key_Up);
        QCOMPARE(int(*list.selectedRow()), 1);
        QCOMPARE(view()->selectionModel()->selectedIndexes().value(0).row(), 1);

        QTest::keyClick(search(), Qt::Key_Backspace);
        QCOMPARE(tasks(), QStringList{"decrypt Beta"});

        QTest::keyClick(search(), Qt::Key_Escape);
        QVERIFY(!list.selectedRow());
        QVERIFY(view()->selectionModel()->selectedIndexes().isEmpty());
        QTest::keyClick(search(), Qt::Key_Up);
        QCOMPARE(view()->currentIndex().row(), 2); // from nothing, up is the last row

        // Without a restore to make, Backspace on a selection does nothing at all.
        auto makers = FolderList::TaskMakers{.lock = [this](const QVRecordRef& f) { return recording("lock", f); }};
        list.setTaskMakers(makers);
        search()->setText("");
        QTest::keyClick(search(), Qt::Key_Backspace);
        QCOMPARE(tasks(), QStringList{});
        initTestCase();

        // A click on a row selects it for the keys too.
        QTest::mouseClick(view()->viewport(), Qt::LeftButton, {},
                          view()->visualRect(model()->index(0)).topLeft() + QPoint(60, 5));
        QCOMPARE(int(*list.selectedRow()), 0);
    }

    void enterOpensTheSelectedFolder() {
        // The file manager is stood in for by a script that notes what it was given.
        const QString noted = QDir::home().filePath("opened.txt");
        const QString opener = QDir::home().filePath("opener.sh");
        QFile script(opener);
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write(QStringLiteral("#!/bin/sh\necho \"$@\" >> '%1'\n").arg(noted).toUtf8());
        script.close();
        script.setPermissions(script.permissions() | QFileDevice::ExeOwner);
        qputenv("BROWSER", opener.toUtf8());
        // No desktop is detected, so that xdg-open falls back on $BROWSER.
        for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_CURRENT_DESKTOP", "DESKTOP_SESSION",
                                 "KDE_FULL_SESSION", "GNOME_DESKTOP_SESSION_ID", "MATE_DESKTOP_SESSION_ID"})
            qunsetenv(name);
        qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent");

        show({"Alpha", "Beta"});
        QTest::keyClick(search(), Qt::Key_Down);
        QTest::keyClick(search(), Qt::Key_Down);
        QTest::keyClick(search(), Qt::Key_Return);
        // A locked folder is shown in its parent.
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(noted), 10000);
        QFile result(noted);
        QVERIFY(result.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(result.readAll()).trimmed(), QDir::homePath());
    }

    void searchFiltersRowsAndANewFolderClearsTheField() {
        show({"Photos", "Taxes", "photo-backup"});
        QTest::keyClicks(search(), "PHO");
        QCOMPARE(rows(), QString("Photos photo-backup"));
        QVERIFY(list.encryptFolder(folder("Incoming", 0)));
        QCOMPARE(search()->text(), QString());
        QCOMPARE(rows(), QString("Photos Taxes photo-backup Incoming"));
        QCOMPARE(tasks(), QStringList{"encrypt Incoming"});
    }

    void draggedRowsSaveTheirPositions() {
        show({"A", "B", "C", "D"});
        // With a filter on, rows are moved by their places in the whole list.
        search()->setText("c");
        std::unique_ptr<QMimeData> dragged(model()->mimeData({model()->index(0)}));
        search()->setText("");
        QVERIFY(model()->dropMimeData(dragged.get(), Qt::MoveAction, 0, 0, {}));
        QCOMPARE(rows(), QString("C A B D"));
        dragged.reset(model()->mimeData({model()->index(0)}));
        QVERIFY(model()->dropMimeData(dragged.get(), Qt::MoveAction, -1, 0, {})); // below the last row
        QCOMPARE(rows(), QString("A B D C"));
        // Dropped by the mouse on the lower edge of the third row: below it.
        dragged.reset(model()->mimeData({model()->index(0)}));
        const QPoint below = view()->visualRect(model()->index(2)).bottomLeft() + QPoint(60, -1);
        QDragEnterEvent enter(below, Qt::MoveAction, dragged.get(), Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(view()->viewport(), &enter);
        QDragMoveEvent move(below, Qt::MoveAction, dragged.get(), Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(view()->viewport(), &move);
        QDropEvent drop(below, Qt::MoveAction, dragged.get(), Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(view()->viewport(), &drop);
        QCOMPARE(rows(), QString("B D A C"));
        for (size_t i = 0; i < list.faces().size(); ++i)
            QCOMPARE(FolderRef{FolderFaceRef{list.faces()[i]}.folder().as<QVRecord>()}.position().toInt(), int64_t(i));
    }

    void theLockControlQueuesTheTaskAndShiftReversesOpening() {
        show({"Locked1", "Locked2", "Open"});
        FolderFaceRef{list.faces()[2]}.setLocked(Value(false));
        QVUserDefaults::standardUserDefaults().setObject("QVOpenFolderAfterUnlock", Value(true));
        clickLock(0, Qt::ShiftModifier);
        clickLock(1, Qt::NoModifier);
        clickLock(2, Qt::ShiftModifier);
        QCOMPARE(tasks(), (QStringList{"lock Open", "unlock Locked1", "unlock+open Locked2"}));
        QVERIFY(FolderFaceRef{list.faces()[0]}.locked().toBool()); // the real state until the task ends

        QVUserDefaults::standardUserDefaults().setObject("QVOpenFolderAfterUnlock", Value(false));
        clickLock(0, Qt::ShiftModifier);
        QCOMPARE(tasks(), QStringList{"unlock+open Locked1"});
    }

    void theActionControlShowsInformationOrCancelsTheTask() {
        show({"Quiet", "Working"});
        auto clickAction = [&](int row) {
            const QRect rect = view()->visualRect(model()->index(row));
            QTest::mouseClick(view()->viewport(), Qt::LeftButton, {},
                              FolderView::layout(rect, view()->font()).action.center());
        };
        auto icon = [&](int row) { return model()->index(row).data(FolderListModel::ActionIconRole).toString(); };
        clickAction(0);
        auto* page = screen->findChild<FolderInfoPage*>();
        QVERIFY(page && page->isVisible());
        QTRY_COMPARE(icon(0), QString("Back"));
        clickAction(0); // Back closes the page
        QTRY_VERIFY(!screen->findChild<FolderInfoPage*>());
        QCOMPARE(icon(0), QString("Info"));

        // A face with a running task shows Cancel, and the control cancels it.
        const QVRecordRef working = list.faces()[1];
        auto task = BlockOperation::blockOperationWithVoidBlock([] {});
        FolderFaceRef{working}.setCurrentOp(task);
        applyFacePresentation(working, {.cancelable = true});
        QTRY_COMPARE(icon(1), QString("Cancel"));
        clickAction(1);
        QVERIFY(FolderFaceRef{working}.opCanceled().toBool());
        QVERIFY(!screen->findChild<FolderInfoPage*>());
        FolderFaceRef{working}.setCurrentOp(nullptr);
    }

    void anEmptySetShowsTheEmptyList() {
        show({});
        QCOMPARE(page(), QString("EmptyList"));
        screen.reset();
        show({"Only"});
        QSignalSpy counted(screen.get(), &FolderListScreen::folderCountChanged);
        QVERIFY(page() != QString("EmptyList"));
        list.removeFolderFace(list.faces()[0]);
        QCOMPARE(page(), QString("EmptyList"));
        QCOMPARE(counted.value(0).value(0).toInt(), 0);
    }

    void aFacesProgressAndStatusReachItsRowFromAnyThread() {
        show({"Busy"});
        const QVRecordRef face = list.faces()[0];
        std::thread worker([face] {
            presentFolderFace(face, {.percentage = 0.25, .status = std::string("Encrypting… 25%"), .cancelable = true});
            presentFolderFace(face, {.status = std::string("Failed"), .statusIsError = true});
        });
        worker.join();
        const QModelIndex row = model()->index(0);
        QTRY_COMPARE(row.data(FolderListModel::StatusTextRole).toString(), QString("Failed"));
        QCOMPARE(row.data(FolderListModel::ProgressRole).toDouble(), 0.25);
        QVERIFY(row.data(FolderListModel::StatusIsErrorRole).toBool());
        QCOMPARE(row.data(FolderListModel::ActionIconRole).toString(), QString("Cancel"));
    }

    void dropsGoThroughTheIntakeChecks() {
        show({"Kept"});
        QCOMPARE(
            dropAndAnswer(QDir::homePath(), QMessageBox::Ok),
            QString("Quillvane cannot safely encrypt your entire home directory, please use FileVault to do that."));
        QCOMPARE(dropAndAnswer(QDir::home().filePath("Kept"), QMessageBox::Ok), QString("Kept is already encrypted."));
        QFile plain(QDir::home().filePath("plain.txt"));
        QVERIFY(plain.open(QIODevice::WriteOnly));
        QCOMPARE(dropAndAnswer(plain.fileName(), QMessageBox::Ok), QString("(not accepted)"));
        QCOMPARE(tasks(), QStringList{});

        // Application data is taken only after a real yes.
        QDir::home().mkpath(".local/AppData");
        const QString appData = QDir::home().filePath(".local/AppData");
        QVERIFY(dropAndAnswer(appData, QMessageBox::No).startsWith("Only encrypt folders in the Library folder"));
        QCOMPARE(tasks(), QStringList{});
        QVERIFY(!dropAndAnswer(appData, QMessageBox::Yes).isEmpty());
        QCOMPARE(tasks(), QStringList{"encrypt AppData"});
        QCOMPARE(rows(), QString("Kept AppData"));
    }

    void anUnfinishedEncryptionIsOfferedAgainAndSettledFirst() {
        auto subdb = show({"Done", "Half"});
        FolderRef{FolderFaceRef{list.faces()[0]}.folder().as<QVRecord>()}.setEncrypted(Value(true));
        QVERIFY(!menuAndAnswer(0, QString()).first.contains("Encrypt Again"));
        // The original is gone (an empty folder stands) and no image was left:
        // nothing to finish from, and the user is told where to look.
        const auto [entries, refusal] = menuAndAnswer(1, "Encrypt Again");
        QVERIFY(entries.contains("Encrypt Again"));
        QVERIFY2(refusal.startsWith("The encryption of 'Half' never ended"), qPrintable(refusal));
        QCOMPARE(tasks(), QStringList{});
        QCOMPARE(rows(), QString("Done Half"));
    }
};

QV_UI_TEST_MAIN(FolderListScreenTest)
#include "FolderListScreen_test.moc"
