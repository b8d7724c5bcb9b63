#include "tasks/BaseFolderTask.h"

#include <exception>

#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "disk/FolderState.h"
#include "notify/QVNotificationCenter.h"
#include "toolkit/PathText.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

OperationRef currentOpOf(const QVRecordRef& face) {
    return FolderFaceRef{face}.currentOp();
}

QVRecordRef folderOf(const QVRecordRef& face) {
    return FolderFaceRef{face}.folder().as<QVRecord>();
}

// The folder's name as the user knows it: the last component of its mount point.
std::string folderName(const QVRecordRef& face) {
    return QVLastPathComponent(FolderRef{folderOf(face)}.mountpoint().toURLPath());
}

} // namespace

// ---------------------------------------------------------------------------
// FolderTaskOperation

FolderTaskOperation::FolderTaskOperation(std::shared_ptr<BaseFolderTask> task, QVRecordRef folderFace)
    : task_(std::move(task)), face_(folderFace), weakFace_(folderFace) {}

QVRecordRef FolderTaskOperation::folderFace() const {
    std::lock_guard lock(faceMutex_);
    return face_ ? face_ : weakFace_.lock();
}

OperationResult FolderTaskOperation::main() {
    if (!task_) return QVError{QVAppErrorDomain(), QVErrorRefused, "an operation without a task"};
    return task_->start(folderFace());
}

void FolderTaskOperation::didFinishRunning() {
    std::lock_guard lock(faceMutex_);
    face_.reset();
}

QVRecordRef folderFace(const OperationRef& operation) {
    auto taskOperation = std::dynamic_pointer_cast<FolderTaskOperation>(operation);
    return taskOperation ? taskOperation->folderFace() : nullptr;
}

// ---------------------------------------------------------------------------
// BaseFolderTask

std::shared_ptr<FolderTaskOperation> BaseFolderTask::makeOperation(const std::shared_ptr<BaseFolderTask>& task,
                                                                   const QVRecordRef& folderFace) {
    if (!task) return nullptr;
    auto operation = std::make_shared<FolderTaskOperation>(task, folderFace);
    task->op_ = operation;
    return operation;
}

OperationResult BaseFolderTask::start(const QVRecordRef& folderFace) {
    const OperationRef self = op();
    if (!self) {
        QV_LOG_FAILED("!self.op");
        return QVError{QVAppErrorDomain(), QVErrorRefused, "a folder task runs only through its operation"};
    }

    // 1. Take over the folder, unless the operation that holds it ended in failure.
    OperationResult result;
    performBlockOnMainThread(
        [&] {
            FolderFaceRef face{folderFace};
            const OperationRef current = currentOpOf(folderFace);
            if (current == self) return;
            // Nothing from a missing operation or from one still running.
            if (current) result = current->result();
            if (result)
                face.setCurrentOp(nullptr);
            else
                face.setCurrentOp(self);
        },
        true);
    // 2. A task that follows a failed chain never runs.
    if (result) return result;

    // 3. The body. A task never throws to the queue: whatever escapes `go` is
    // logged and becomes this run's error, and the folder is still let go below.
    try {
        result = go(folderFace);
    } catch (const QVAbstractMethodException& exception) {
        QV_LOG_ERROR(QVFormat("%s: %s", QVAbstractMethodException::name, exception.what()));
        result = QVError{QVAppErrorDomain(), QVErrorRefused, exception.what()};
    } catch (const std::exception& exception) {
        QV_LOG_ERROR(QVFormat("task ended by an exception: %s", exception.what()));
        result = QVError{QVAppErrorDomain(), QVErrorRefused, exception.what()};
    } catch (...) {
        QV_LOG_ERROR("task ended by an unknown exception");
        result = QVError{QVAppErrorDomain(), QVErrorRefused, "unknown exception"};
    }

    // 4. Let go of the folder, whatever `go` ended with.
    performBlockOnMainThread([&] { FolderFaceRef{folderFace}.setCurrentOp(nullptr); }, true);
    // 5. The operation keeps the result.
    return result;
}

OperationResult BaseFolderTask::go(const QVRecordRef& folderFace) {
    (void)folderFace;
    throw QVAbstractMethodException();
}

void BaseFolderTask::startIndeterminateProgress(const QVRecordRef& folderFace, const std::string& message,
                                                bool cancellable) {
    presentFolderFace(folderFace,
                      {.indeterminate = true, .animate = true, .percentage = 0.0, .status = message,
                       .cancelable = cancellable},
                      true);
}

namespace {

// The bar stopped and the size line shown; with `release`, the cancel control
// taken away and a cancel request forgotten as well. Main thread, not waited for.
void stopBar(const QVRecordRef& folderFace, bool release) {
    performBlockOnMainThread(
        [folderFace, release] {
            FolderFaceRef face{folderFace};
            face.setProgressIndeterminate(Value(false));
            face.setProgressAnimate(Value(false));
            if (release) {
                face.setCancelable(Value(false));
                face.setOpCanceled(Value());
            }
            QVDisplayFolderSizeInfo(folderFace);
        },
        false);
}

} // namespace

void BaseFolderTask::endProgress(const QVRecordRef& folderFace) { stopBar(folderFace, true); }

void BaseFolderTask::showSizeInfo(const QVRecordRef& folderFace) { stopBar(folderFace, false); }

QVError BaseFolderTask::fail(const QVRecordRef& folderFace, const std::string& message) {
    QVError error{QVAppErrorDomain(), QVErrorFailed, message};
    QV_LOG_ERROR(QVFormat("failed locked/unlocked check '%s': %s", folderName(folderFace).c_str(),
                          error.description.c_str()));
    QVNotificationCenter::defaultCenter().postAlert(message, true);
    endProgress(folderFace);
    return error;
}

OperationResult BaseFolderTask::failIfUnlocked(const QVRecordRef& folderFace, const std::string& message) {
    if (QVFolderIsUnlocked(folderOf(folderFace), nullptr)) return fail(folderFace, message);
    return std::nullopt;
}

OperationResult BaseFolderTask::failIfLocked(const QVRecordRef& folderFace, const std::string& message) {
    if (!QVFolderIsUnlocked(folderOf(folderFace), nullptr)) return fail(folderFace, message);
    return std::nullopt;
}

// ---------------------------------------------------------------------------
// Queueing and cancelling

bool addFolderTask(OperationQueue& queue, const OperationRef& operation, QVError* error) {
    bool added = false;
    performBlockOnMainThread(
        [&] {
            const QVRecordRef face = folderFace(operation);
            if (!face) {
                added = queue.addOperation(operation, error);
                return;
            }
            FolderFaceRef faceRef{face};
            const OperationRef current = currentOpOf(face);
            bool madeCurrent = false;
            if (current && !current->isFinished()) {
                // Refused only for an operation that is queued already, which the
                // queue refuses below as well.
                operation->addDependency(current);
            } else if (!current) {
                faceRef.setCurrentOp(operation);
                madeCurrent = true;
            }
            added = queue.addOperation(operation, error);
            // An operation that will never run must not keep the folder busy.
            if (!added && madeCurrent) faceRef.setCurrentOp(nullptr);
        },
        true);
    return added;
}

bool cancelCurrentOperation(const QVRecordRef& folderFace) {
    if (!hasCurrentOperation(folderFace)) return false;
    FolderFaceRef{folderFace}.setOpCanceled(Value(true));
    return true;
}

bool hasCurrentOperation(const QVRecordRef& folderFace) {
    return folderFace && currentOpOf(folderFace) != nullptr;
}

} // namespace qv
