#pragma once
// The folder list screen: the folders of the Folder Set on show, one row each
// (FolderView), with the search field and its keys, drag reorder, the rows'
// context menu, and folders brought in by a drop or the folder chooser. With
// no folders in the set it shows the empty list instead.
//
// The screen is thin: every operation goes to FolderList (app/FolderList.h).
#include <QPointer>
#include <QWidget>

#include "vault/QVRecord.h"

class QLineEdit;
class QListView;
class QStackedLayout;

namespace qv::ui {

class FolderInfoPage;
class FolderListModel;
class FolderView;

class FolderListScreen : public QWidget {
    Q_OBJECT
public:
    explicit FolderListScreen(QWidget* parent = nullptr);

public slots:
    // Opens the folder chooser; the chosen folder is brought in as a dropped one.
    void addFolder();
    // Opens the selected folder (unlocked) or shows it in the file manager (locked).
    void openSelected();
    void focusSearch();

signals:
    void folderCountChanged(int count);

protected:
    void showEvent(QShowEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QWidget* makeEmptyPage();
    void refresh();
    void showSelectionInView();
    bool searchKey(QKeyEvent* key);
    bool rowsKey(QKeyEvent* key);
    void toggleLock(const QModelIndex& index, bool shiftHeld);
    void rowAction(const QModelIndex& index);
    void showInfo(const QVRecordRef& face);
    void showContextMenu(const QPoint& where);
    // "Encrypt Again" of a folder whose encryption never finished: settled as
    // the disk tells, and encrypted afresh from its untouched original.
    void encryptAgain(const QVRecordRef& face);

    FolderListModel* model_;
    FolderView* rows_;
    QListView* view_;
    QLineEdit* search_;
    QStackedLayout* pages_;
    QWidget* listPage_;
    QWidget* emptyPage_;
    QPointer<FolderInfoPage> info_;
    int shownCount_ = -1;
    bool syncing_ = false;
};

} // namespace qv::ui
