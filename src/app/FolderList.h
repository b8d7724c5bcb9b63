#pragma once
// The folder list: the owner of the FolderFace of every folder on show and of the
// Folder Set they come from, and
// the place where the user's operations on folders (encrypt, lock, unlock,
// remove, reorder, open) reach the database and the task queue. A model without
// widgets: the desktop window and qv both drive it. A face's progress and
// status line are set through vault/FacePresentation.h from any layer; the
// list observes the faces.
//
// Main thread only: tasks reach these operations through blocks posted to the
// main thread (toolkit/MainThread.h), never by calling them from their own thread.
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "toolkit/OperationQueue.h"
#include "vault/FacePresentation.h"
#include "vault/QVRecord.h"

namespace qv {

class DBSubdb;

class FolderList : public FolderFacesHost {
public:
    // The one list of the process.
    static FolderList& singleton();

    // ------------------------------------------------------------ the set on show

    // The faces on show, in `position` order.
    const std::vector<QVRecordRef>& faces() const override { return faces_; }
    // The Folder Set on show, or null.
    const std::shared_ptr<DBSubdb>& subdb() const override { return subdb_; }

    // Shows `subdb`: the faces of the set on show stop being observed and that set
    // goes back to its master database (unless it is `subdb` itself); then one
    // face per folder, sorted by `position` (ties keep the set's order), each set
    // up (setupFolderFace) and its actions handed to the actions cache.
    void loadSubdb(const std::shared_ptr<DBSubdb>& subdb);
    // The window locks: no faces, no set; the set goes back to its master database.
    void returnSubDB();

    // The face's `locked` from the file system, its size line, or "Mountpoint
    // missing!" as an error (and locked) when its path can't be reached; then
    // its action icon, and the list observes its `cancelable`.
    void setupFolderFace(const QVRecordRef& face);

    // ------------------------------------------------------------ user operations

    // A new folder from the intake: added to the set, given a face at the end of
    // the list (the search filter clears), and an encrypting task queued. False
    // when the set refuses the folder (logged, nothing shown) or no task could be
    // queued.
    bool encryptFolder(const QVRecordRef& folder);
    // An image imported as it lies (the import screen's face, whose folder
    // carries the image's url, settings, encrypted password and mount point):
    // a new folder of the default storage with a face at the end of the list,
    // in the set on show, and an import task queued that adds it to the set.
    // False when no set is on show or no task could be queued.
    bool importSparseBundle(const QVRecordRef& face);
    // The row's switch was flipped (its binding has already changed `locked`):
    // `locked` is set back to the folder's real state and the task that changes
    // it is queued: locking for an unlocked folder, unlocking (opening it after
    // as shouldOpenFolderInFinder says) for a locked one.
    bool toggleFolderLockOfFolderFace(const QVRecordRef& face, bool shiftHeld = false);
    // The user restores the folder (its contents back in place of the image): a
    // restoring task is queued at once, with no question asked here. The task's
    // operation, or null when no restoring task can be made yet or the queue
    // refuses it.
    OperationRef restoreFolderFace(const QVRecordRef& face);
    // Whether a restoring task can be made (its maker is installed).
    bool canDecrypt() const { return bool(makers_.decrypt); }
    // Takes the face out of the list and its folder out of the set, and saves the
    // set (a failed save is not reported).
    void removeFolderFace(const QVRecordRef& face) override;
    // The user gives up on a folder (the clicked face; null does nothing). With
    // its image at hand, the image and its password are rescued to a place the
    // user picks (queued to the main thread; a cancel keeps the folder). With
    // the image gone, the user is asked "Missing Disk Image" (default No); Yes
    // hands over the password and takes the folder out of the list and its
    // set. Either way a folder marked to unlock at login no longer counts.
    void forceRemoveEntry(const QVRecordRef& face);
    // Locked: shows the folder's path in the file manager; unlocked: opens it.
    void openFolderFace(const QVRecordRef& face);
    // Whether a folder opens after its unlock: the preference QVOpenFolderAfterUnlock,
    // reversed when Shift is held, and never when an unlock action opens something.
    bool shouldOpenFolderInFinder(const QVRecordRef& face, bool shiftHeld) const;
    // The row's action control: cancels the face's running task (true), or does
    // nothing here when it has none (false: the front end shows the details).
    bool folderAction(const QVRecordRef& face);

    // Queues the measuring task for the face; false when there is no maker for it.
    bool statFolderFace(const QVRecordRef& face);

    // Folders changed from outside the list: a folder that is new to the list is
    // encrypted; a face whose folder is no longer among them is restored.
    void recordsUpdated(const std::vector<QVRecordRef>& folders);

    // The tasks that the operations above queue. Each maker returns the
    // operation of a task for the face; the front end installs them once at
    // start-up, where the task classes are known. A missing maker refuses the
    // operation (logged).
    struct TaskMakers {
        std::function<OperationRef(const QVRecordRef& face)> encrypt;
        std::function<OperationRef(const QVRecordRef& face)> decrypt;
        std::function<OperationRef(const QVRecordRef& face)> lock;
        std::function<OperationRef(const QVRecordRef& face, bool openFolder)> unlock;
        std::function<OperationRef(const QVRecordRef& face)> import;
    };
    void setTaskMakers(TaskMakers makers) { makers_ = std::move(makers); }
    // The task that measures a folder again (a volume below its path came or
    // went); while none is set, nothing is measured.
    void setStatTaskMaker(std::function<OperationRef(const QVRecordRef& face)> maker) { statMaker_ = std::move(maker); }
    // The queue the tasks go to; the process's folder-task queue unless set.
    void setQueue(OperationQueue* queue) { queue_ = queue; }

    // ------------------------------------------------------------ rows

    // The rows as the table shows them: `faces` through the search filter.
    std::vector<QVRecordRef> arrangedFaces() const;
    // An empty string clears the filter; otherwise a row stays when the name of
    // its folder contains the text, ignoring case.
    void search(const std::string& text);
    const std::string& searchText() const { return search_; }

    // Moves the rows at `indexes` (of faces) to `row`, in order; positions then
    // run 0..n-1 and the set is saved on the main thread's next turn. A drop on a
    // row of the drag changes nothing. Always true, as the drag ends either way.
    bool acceptDrop(const std::set<size_t>& indexes, size_t row);

    // Selection over the arranged rows.
    void selectNext();
    void selectPrevious();
    void selectNothing() { selected_.reset(); }
    // Selects an arranged row (a row past the end selects nothing), as a click does.
    void selectRow(size_t row);
    QVRecordRef selectedFolderFace() const;
    std::optional<size_t> selectedRow() const { return selected_; }

    // Whether the list stands empty (the front end then shows its empty screen),
    // and a hook that hears when it becomes so.
    void checkEmptyFolderList();
    bool showsEmptyList() const { return showsEmptyList_; }
    void setEmptyListHandler(std::function<void()> handler) { emptyListHandler_ = std::move(handler); }

    // Listeners that hear, on the main thread, whenever the faces or their
    // arrangement change (a set shown or given back, a folder added or taken
    // away, a reorder, a new search). The id removes the listener again.
    size_t addFacesListener(std::function<void()> listener);
    void removeFacesListener(size_t id);

    // The face whose details are on show (the front end says), for the action icons.
    void setDetailsFace(const QVRecordRef& face) { detailsFace_ = face; }

    // ------------------------------------------------------------ action control

    // The icon pair of the row's action control: true gives "Info"/"InfoPressed"
    // ("Back"/"BackPressed" while the face's details are on show); false gives
    // the cancel pair.
    void setActionIcon(bool flag, const QVRecordRef& face);

private:
    FolderList();
    class CancelableObserver;

    void observeFolderFace(const QVRecordRef& face);
    void unobserveFolderFace(const QVRecordRef& face);
    bool queueTask(const OperationRef& operation, const char* what);
    void facesChanged();

    std::vector<QVRecordRef> faces_;
    std::shared_ptr<DBSubdb> subdb_;
    std::string search_;
    std::optional<size_t> selected_;
    bool showsEmptyList_ = false;
    std::function<void()> emptyListHandler_;
    QVRecordRef detailsFace_;
    TaskMakers makers_;
    std::function<OperationRef(const QVRecordRef& face)> statMaker_;
    OperationQueue* queue_ = nullptr;
    std::shared_ptr<CancelableObserver> observer_;
    std::map<size_t, std::function<void()>> facesListeners_;
    size_t nextListener_ = 0;
};

} // namespace qv
