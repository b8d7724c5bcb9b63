#include "ui/folders/FolderListScreen.h"

#include <QDir>
#include <QDragEnterEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMimeData>
#include <QPushButton>
#include <QStackedLayout>
#include <QTimer>
#include <QVBoxLayout>

#include "app/FolderList.h"
#include "app/FolderTaskMark.h"
#include "app/InterruptedWork.h"
#include "disk/DesktopOpen.h"
#include "tasks/BaseFolderTask.h"
#include "ui/folders/FolderIcons.h"
#include "ui/folders/FolderInfoPage.h"
#include "ui/folders/FolderIntakeFlow.h"
#include "ui/folders/FolderListModel.h"
#include "ui/folders/FolderPrompts.h"
#include "ui/folders/FolderView.h"
#include "vault/Schemas.h"

namespace qv::ui {

namespace {

// The one local folder a drag carries, or empty.
QString draggedFolder(const QMimeData* data) {
    if (!data || !data->hasUrls() || data->urls().isEmpty()) return {};
    const QUrl url = data->urls().constFirst();
    return url.isLocalFile() ? url.toLocalFile() : QString();
}

} // namespace

FolderListScreen::FolderListScreen(QWidget* parent)
    : QWidget(parent), model_(new FolderListModel(this)), rows_(new FolderView(this)) {
    setAcceptDrops(true);

    search_ = new QLineEdit;
    search_->setObjectName(QStringLiteral("folderSearch"));
    search_->setPlaceholderText(tr("Search folders"));
    search_->setClearButtonEnabled(true);
    search_->installEventFilter(this);
    connect(search_, &QLineEdit::textChanged, this,
            [](const QString& text) { FolderList::singleton().search(text.toStdString()); });

    view_ = new QListView;
    view_->setObjectName(QStringLiteral("folderRows"));
    view_->setModel(model_);
    view_->setItemDelegate(rows_);
    view_->setUniformItemSizes(true);
    view_->setSelectionMode(QAbstractItemView::SingleSelection);
    view_->setMouseTracking(true);
    view_->setDragEnabled(true);
    view_->setAcceptDrops(true);
    view_->setDropIndicatorShown(true);
    view_->setDragDropMode(QAbstractItemView::DragDrop);
    view_->setDragDropOverwriteMode(false);
    view_->setDefaultDropAction(Qt::MoveAction);
    view_->setContextMenuPolicy(Qt::CustomContextMenu);
    view_->installEventFilter(this);
    connect(view_, &QWidget::customContextMenuRequested, this, &FolderListScreen::showContextMenu);
    connect(view_->selectionModel(), &QItemSelectionModel::currentChanged, this, [this](const QModelIndex& current) {
        if (syncing_) return;
        if (current.isValid())
            FolderList::singleton().selectRow(size_t(current.row()));
        else
            FolderList::singleton().selectNothing();
    });
    connect(rows_, &FolderView::lockClicked, this, &FolderListScreen::toggleLock);
    connect(rows_, &FolderView::actionClicked, this, &FolderListScreen::rowAction);
    connect(rows_, &FolderView::rowDoubleClicked, this,
            [this](const QModelIndex& index) { FolderList::singleton().openFolderFace(model_->faceAt(index.row())); });
    connect(model_, &FolderListModel::rowsReloaded, this, &FolderListScreen::refresh);

    listPage_ = new QWidget;
    auto* column = new QVBoxLayout(listPage_);
    column->setContentsMargins(6, 6, 6, 6);
    column->setSpacing(6);
    column->addWidget(search_);
    column->addWidget(view_, 1);
    emptyPage_ = makeEmptyPage();

    pages_ = new QStackedLayout(this);
    pages_->addWidget(listPage_);
    pages_->addWidget(emptyPage_);
    refresh();
}

QWidget* FolderListScreen::makeEmptyPage() {
    auto* page = new QWidget;
    page->setObjectName(QStringLiteral("EmptyList"));
    auto* picture = new QLabel;
    picture->setAlignment(Qt::AlignCenter);
    picture->setPixmap(folderPicture(QStringLiteral("Folder"), QSize(64, 64), devicePixelRatioF(),
                                     palette().color(QPalette::Text), palette().color(QPalette::Window)));
    auto* title = new QLabel(tr("No protected folders yet"));
    QFont bold = title->font();
    bold.setBold(true);
    bold.setPointSizeF(bold.pointSizeF() * 1.2);
    title->setFont(bold);
    title->setAlignment(Qt::AlignCenter);
    auto* hint = new QLabel(tr("Drop a folder here to keep it encrypted, or choose one."));
    hint->setAlignment(Qt::AlignCenter);
    hint->setWordWrap(true);
    auto* add = new QPushButton(tr("Add Folder…"));
    add->setObjectName(QStringLiteral("addFolder"));
    connect(add, &QPushButton::clicked, this, &FolderListScreen::addFolder);

    auto* column = new QVBoxLayout(page);
    column->addStretch(1);
    column->addWidget(picture);
    column->addWidget(title);
    column->addWidget(hint);
    column->addSpacing(8);
    column->addWidget(add, 0, Qt::AlignHCenter);
    column->addStretch(1);
    return page;
}

void FolderListScreen::refresh() {
    FolderList& list = FolderList::singleton();
    const QString searched = QString::fromStdString(list.searchText());
    if (search_->text() != searched) {
        // The list cleared its filter (a folder came in): the field follows.
        QSignalBlocker quiet(search_);
        search_->setText(searched);
    }
    const int count = int(list.faces().size());
    pages_->setCurrentWidget(count == 0 ? emptyPage_ : listPage_);
    if (count != shownCount_) {
        shownCount_ = count;
        emit folderCountChanged(count);
    }
    showSelectionInView();
}

void FolderListScreen::showSelectionInView() {
    syncing_ = true;
    if (const auto row = FolderList::singleton().selectedRow()) {
        const QModelIndex index = model_->index(int(*row));
        view_->selectionModel()->setCurrentIndex(index, QItemSelectionModel::ClearAndSelect);
        view_->scrollTo(index);
    } else {
        view_->selectionModel()->clear();
    }
    syncing_ = false;
}

void FolderListScreen::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    refresh();
    focusSearch();
}

void FolderListScreen::focusSearch() {
    if (pages_->currentWidget() == listPage_) search_->setFocus(Qt::OtherFocusReason);
}

void FolderListScreen::openSelected() {
    FolderList& list = FolderList::singleton();
    if (QVRecordRef face = list.selectedFolderFace()) list.openFolderFace(face);
}

void FolderListScreen::addFolder() {
    const QString path = QFileDialog::getExistingDirectory(this, tr("Choose a Folder to Encrypt"), QDir::homePath());
    if (!path.isEmpty()) bringFolderIn(this, path);
}

// ---------------------------------------------------------------------- keys

bool FolderListScreen::eventFilter(QObject* watched, QEvent* event) {
    if (event->type() == QEvent::KeyPress) {
        auto* key = static_cast<QKeyEvent*>(event);
        if (watched == search_) return searchKey(key);
        if (watched == view_) return rowsKey(key);
    }
    return QWidget::eventFilter(watched, event);
}

bool FolderListScreen::searchKey(QKeyEvent* key) {
    FolderList& list = FolderList::singleton();
    switch (key->key()) {
    case Qt::Key_Down:
        list.selectNext();
        break;
    case Qt::Key_Up:
        list.selectPrevious();
        break;
    case Qt::Key_Backspace: {
        // With a row selected the key restores its folder (once a restore can
        // be made); without one it edits the search text.
        QVRecordRef face = list.selectedFolderFace();
        if (!face) return false;
        if (list.canDecrypt()) list.restoreFolderFace(face);
        return true;
    }
    case Qt::Key_Escape:
        list.selectNothing();
        showSelectionInView();
        return false; // the window may still want it
    case Qt::Key_Return:
    case Qt::Key_Enter:
        openSelected();
        return true;
    default:
        return false;
    }
    showSelectionInView();
    return true;
}

bool FolderListScreen::rowsKey(QKeyEvent* key) {
    const QModelIndex current = view_->currentIndex();
    switch (key->key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter:
        openSelected();
        return true;
    case Qt::Key_Space:
        if (current.isValid()) toggleLock(current, key->modifiers() & Qt::ShiftModifier);
        return true;
    case Qt::Key_Menu:
        if (current.isValid()) showContextMenu(view_->visualRect(current).center());
        return true;
    case Qt::Key_Escape:
        FolderList::singleton().selectNothing();
        showSelectionInView();
        return false;
    default:
        return false;
    }
}

// ---------------------------------------------------------------------- row controls

void FolderListScreen::toggleLock(const QModelIndex& index, bool shiftHeld) {
    QVRecordRef face = model_->faceAt(index.row());
    if (!face || hasCurrentOperation(face)) return; // one task at a time on a folder
    // The control is bound to `locked`: the click flips it, the list sets it back.
    FolderFaceRef ff{face};
    ff.setLocked(Value(!ff.locked().toBool()));
    FolderList::singleton().toggleFolderLockOfFolderFace(face, shiftHeld);
}

void FolderListScreen::rowAction(const QModelIndex& index) {
    QVRecordRef face = model_->faceAt(index.row());
    if (!face || FolderList::singleton().folderAction(face)) return; // a running task was cancelled
    showInfo(face);
}

void FolderListScreen::showInfo(const QVRecordRef& face) {
    FolderList& list = FolderList::singleton();
    const bool same = info_ && info_->face() == face;
    if (info_) info_->close();
    if (same) return; // the Back control closes the page
    info_ = new FolderInfoPage(face, this);
    info_->setAttribute(Qt::WA_DeleteOnClose);
    list.setDetailsFace(face);
    list.setActionIcon(true, face);
    connect(info_, &QObject::destroyed, [face] {
        FolderList& list = FolderList::singleton();
        list.setDetailsFace(nullptr);
        list.setActionIcon(!FolderFaceRef{face}.cancelable().toBool(), face);
    });
    info_->show();
}

void FolderListScreen::showContextMenu(const QPoint& where) {
    QVRecordRef face = model_->faceAt(view_->indexAt(where).row());
    if (!face) return;
    FolderList& list = FolderList::singleton();
    // While a task runs on the folder, it can only be shown.
    const bool idle = !hasCurrentOperation(face);
    const std::string path = QVFolderMountpointPath(FolderFaceRef{face}.folder().as<QVRecord>());

    QMenu menu(this);
    menu.addAction(tr("Information"), this, [this, face] { showInfo(face); });
    menu.addAction(tr("Show in File Manager"), this, [path] { QVRevealInFileManager({path}); });
    QAction* restore =
        menu.addAction(tr("Restore Folder"), this, [face] { FolderList::singleton().restoreFolderFace(face); });
    restore->setEnabled(idle && list.canDecrypt());
    if (QVIsUnfinishedEncryption(face)) {
        QAction* again = menu.addAction(tr("Encrypt Again"), this, [this, face] { encryptAgain(face); });
        again->setEnabled(idle);
    }
    menu.addSeparator();
    QAction* remove = menu.addAction(tr("Force Remove…"), this, [this, face] {
        FolderQuestions questions(this);
        FolderList::singleton().forceRemoveEntry(face);
    });
    remove->setEnabled(idle);
    menu.exec(view_->viewport()->mapToGlobal(where));
}

void FolderListScreen::encryptAgain(const QVRecordRef& face) {
    FolderRef folder{FolderFaceRef{face}.folder().as<QVRecord>()};
    const QString path = QString::fromStdString(folder.mountpoint().toURLPath());
    UnfinishedEncryption settled;
    QVError error;
    {
        // The same settling as `qv encrypt`, under the folder's mark so that no
        // other process works on it meanwhile; the new encryption takes its own.
        auto mark = FolderTaskMark::hold(folder.uuid().toString());
        if (!mark) {
            showFolderRefusal(this, tr("Folder busy"),
                              tr("Another Quillvane process is working on %1.").arg(QFileInfo(path).fileName()));
            return;
        }
        settled = QVSettleUnfinishedEncryption(face, &error);
    }
    if (settled == UnfinishedEncryption::Failed)
        showFolderRefusal(this, tr("Bad folder"), QString::fromStdString(error.description));
    else if (settled == UnfinishedEncryption::StartOver)
        bringFolderIn(this, path);
    refresh();
}

// ---------------------------------------------------------------------- drops

void FolderListScreen::dragEnterEvent(QDragEnterEvent* event) {
    const QString path = draggedFolder(event->mimeData());
    if (!path.isEmpty() && QFileInfo(path).isDir()) event->acceptProposedAction();
}

void FolderListScreen::dragMoveEvent(QDragMoveEvent* event) {
    if (!draggedFolder(event->mimeData()).isEmpty()) event->acceptProposedAction();
}

void FolderListScreen::dropEvent(QDropEvent* event) {
    const QString path = draggedFolder(event->mimeData());
    if (path.isEmpty()) return;
    event->acceptProposedAction();
    // Answered after the drag has ended, so that no dialog opens inside it.
    QTimer::singleShot(0, this, [this, path] { bringFolderIn(this, path); });
}

} // namespace qv::ui
