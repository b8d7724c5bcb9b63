#pragma once
// Folder tasks: everything slow that is done to one folder (encrypting, restoring,
// unlocking, locking, measuring, ...) is a task. A task has one real operation,
// `go`, which runs on a worker thread of an OperationQueue and ends with nothing
// (success) or an error. It talks to the folder's row only through the live fields
// of its FolderFace, and only on the main thread (toolkit/MainThread.h).
//
// Callers never hold tasks: a factory makes the task together with the operation
// that runs it and returns the operation. The operation owns its task, so a task
// lives exactly as long as its operation; it runs once and is never reused.
//
// Two tasks of one folder are kept apart by addFolderTask and the face's
// `currentOp`:
//  - addFolderTask makes a new task depend on the face's current operation when
//    that one has not finished, or makes the new task the current one when the face
//    has none. The dependency is on the operation that is current at that moment,
//    not on the one queued last: three tasks queued at once on an idle folder give
//    one that runs and two that both wait for it, and may then run side by side.
//  - start() makes its own operation the current one, unless the current one
//    ended with an error: then it clears `currentOp` and ends with that error
//    without running `go`. It clears `currentOp` again when `go` has returned.
//  `currentOp` is read and written on the main thread only, so testing for a
//  current operation and setting one never interleave.
//
// Cancelling is cooperative: the row's control sets the face's `opCanceled`
// (cancelCurrentOperation) and the running work polls it. Nothing is stopped from
// outside.
//
// A task tells the user about its own failures before it returns (notification
// centre or a panel); its result is read by nobody but the task that follows it.
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

#include "toolkit/OperationQueue.h"
#include "toolkit/QVError.h"
#include "vault/QVRecord.h"

namespace qv {

class BaseFolderTask;

// What `go` of a task class that doesn't override it throws.
class QVAbstractMethodException : public std::logic_error {
public:
    QVAbstractMethodException() : std::logic_error("needs to be overwritten") {}
    static constexpr const char* name = "abstractmethodexception";
};

// The operation that runs a task: its target is the task, its action `start`, its
// argument the FolderFace.
class FolderTaskOperation : public Operation {
public:
    FolderTaskOperation(std::shared_ptr<BaseFolderTask> task, QVRecordRef folderFace);

    // The argument the task runs on. Held until the operation has finished, then
    // only weakly: a face whose `currentOp` was left on this operation must not
    // keep the two alive in a circle.
    QVRecordRef folderFace() const;
    const std::shared_ptr<BaseFolderTask>& task() const { return task_; }

protected:
    OperationResult main() override;
    void didFinishRunning() override;

private:
    const std::shared_ptr<BaseFolderTask> task_;
    mutable std::mutex faceMutex_;
    QVRecordRef face_;
    std::weak_ptr<QVRecord> weakFace_;
};

// The FolderFace of an operation that a task factory made; null for any other.
QVRecordRef folderFace(const OperationRef& operation);

class BaseFolderTask : public std::enable_shared_from_this<BaseFolderTask> {
public:
    BaseFolderTask() = default;
    virtual ~BaseFolderTask() = default;
    BaseFolderTask(const BaseFolderTask&) = delete;
    BaseFolderTask& operator=(const BaseFolderTask&) = delete;

    // Makes the operation that runs `task` on the face, stores it as the task's
    // `op` and returns it. The factories of the task classes (FolderTask below)
    // call this; a factory with extra settings stores them in the task first.
    static std::shared_ptr<FolderTaskOperation> makeOperation(const std::shared_ptr<BaseFolderTask>& task,
                                                              const QVRecordRef& folderFace);

    // The operation that runs this task (null before makeOperation, or once the
    // operation is gone).
    OperationRef op() const { return op_.lock(); }

    // The operation's entry point; see the top of this file. Never overridden.
    // Runs on a worker thread and waits for the main thread twice.
    OperationResult start(const QVRecordRef& folderFace);

    // The body. Each task class overrides it; this one throws
    // QVAbstractMethodException, which start() turns into error 1003.
    virtual OperationResult go(const QVRecordRef& folderFace);

    // A busy row: an animated indeterminate bar at 0, the cancel control as asked,
    // and `message` as the status line in the normal colour. On the main thread,
    // waiting.
    void startIndeterminateProgress(const QVRecordRef& folderFace, const std::string& message, bool cancellable);
    // The row back at rest: no indeterminate or animated bar, no cancel control,
    // `opCanceled` cleared, and the size line of the folder list. Posted to the
    // main thread, not waited for. Every `go` ends with this or its equivalent.
    void endProgress(const QVRecordRef& folderFace);

    // The bar stopped and the size line shown, the controls left as they are.
    // Posted to the main thread, not waited for.
    void showSizeInfo(const QVRecordRef& folderFace);

    // A refused task: logs, posts `message` as a sticky alert, ends the progress
    // and returns error 1001 with `message` as its description.
    QVError fail(const QVRecordRef& folderFace, const std::string& message);
    // fail(folderFace, message) when the folder is now unlocked (mounted); nothing
    // otherwise. A lock state that can't be found out counts as locked, so the task
    // goes on.
    OperationResult failIfUnlocked(const QVRecordRef& folderFace, const std::string& message);
    // fail(folderFace, message) when the folder is now locked (not mounted), also
    // when the lock state can't be found out; nothing otherwise.
    OperationResult failIfLocked(const QVRecordRef& folderFace, const std::string& message);

private:
    std::weak_ptr<Operation> op_;
};

// The factories of a task class: `Task::taskWithFolderFace(face)` makes a Task and
// returns the operation that runs it. Task classes derive from FolderTask<Task>;
// one with extra settings adds its own factory, e.g.
//
//   static OperationRef taskWithFolderFace(const QVRecordRef& face, bool openFolder) {
//       auto task = std::make_shared<UnlockFolderTask>();
//       task->openFolder = openFolder;
//       return makeOperation(task, face);
//   }
template <class Task>
class FolderTask : public BaseFolderTask {
public:
    static OperationRef taskWithFolderFace(const QVRecordRef& folderFace) {
        return makeOperation(std::make_shared<Task>(), folderFace);
    }
    // The task of an operation made by a factory of this class; null otherwise.
    static std::shared_ptr<Task> taskOf(const OperationRef& operation) {
        auto taskOperation = std::dynamic_pointer_cast<FolderTaskOperation>(operation);
        return taskOperation ? std::dynamic_pointer_cast<Task>(taskOperation->task()) : nullptr;
    }
};

// Queues a task's operation on `queue`, keeping it apart from the other tasks of
// its folder (see the top of this file). Every folder task goes through it, apart
// from a caller that has to wait for its task and adds it with
// addOperations(..., true); start() then makes it current. The whole body runs on
// the main thread, and the caller waits for it. An operation with no FolderFace is
// just queued. False (with the queue's error) when the queue refuses the
// operation; the face is then left as it was.
bool addFolderTask(OperationQueue& queue, const OperationRef& operation, QVError* error = nullptr);

// The row's action control pressed: when the face has a current operation, sets
// `opCanceled` and answers true, and the control does nothing else; answers false
// when the face is idle, and the control does its normal job. Main thread.
bool cancelCurrentOperation(const QVRecordRef& folderFace);

// Whether a task is queued or running on the face (its context commands are then
// disabled, apart from showing it in the file manager). Main thread.
bool hasCurrentOperation(const QVRecordRef& folderFace);

} // namespace qv
