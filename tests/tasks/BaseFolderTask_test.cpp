#include "tasks/BaseFolderTask.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>

#include "automation/AutomationTestSupport.h"
#include "support/QtApp.h"
#include "toolkit/LogCapture.h"
#include "toolkit/MainThread.h"
#include "app/FolderList.h"
#include "vault/Schemas.h"

using namespace qv;

namespace {

// A door a task waits at until the test opens it (a minute at most, so that a
// fault fails the test instead of hanging it).
struct Door {
    std::promise<void> opener;
    std::shared_future<void> opened = opener.get_future().share();
    bool pass() const { return opened.wait_for(std::chrono::seconds(60)) == std::future_status::ready; }
};

// The task of these tests: its body is whatever the test gives it.
struct ScriptedTask : FolderTask<ScriptedTask> {
    std::function<OperationResult(ScriptedTask&, const QVRecordRef&)> body;
    std::atomic<bool> ran{false};
    std::weak_ptr<Operation> currentAtStart;  // weak: the task must not hold its own operation
    OperationResult go(const QVRecordRef& face) override {
        ran = true;
        performBlockOnMainThread([&] { currentAtStart = FolderFaceRef{face}.currentOp(); }, true);
        return body ? body(*this, face) : std::nullopt;
    }
};

OperationRef scripted(const QVRecordRef& face, std::function<OperationResult(ScriptedTask&, const QVRecordRef&)> body) {
    OperationRef operation = ScriptedTask::taskWithFolderFace(face);
    ScriptedTask::taskOf(operation)->body = std::move(body);
    return operation;
}

std::shared_ptr<ScriptedTask> task(const OperationRef& operation) { return ScriptedTask::taskOf(operation); }

class FolderTaskTest : public ::testing::Test {
protected:
    OperationQueue queue;
    QVRecordRef face;
    test::LogCapture log;  // lines come from workers too
    test::RecordedNotifications notifications;

    void SetUp() override {
        test::qtApp();
        face = faceAt("/nonexistent/Tax Papers");
    }
    void TearDown() override {
        // Workers may be waiting for the main thread: turn it until they are done.
        EXPECT_TRUE(test::processEventsUntil([&] { return queue.operationCount() == 0; }, 60000));
        test::processEventsFor(10);
    }
    static QVRecordRef faceAt(const std::string& path) {
        QVRecordRef folder = QVFolderCreate(QVStorageCreate("Default", URLValue{"/tmp"}), URLValue{path});
        QVRecordRef diskinfo = QVRecordForProtocol(DiskInfo);
        DiskInfoRef{diskinfo}.setCapacity(Value(4096));
        FolderRef{folder}.setDiskinfo(Value(diskinfo));
        FolderRef{folder}.setFolderSize(Value(1024));
        FolderFaceRef ref{QVRecordForProtocol(FolderFace)};
        ref.setFolder(Value(folder));
        return ref.record;
    }
    OperationRef current() const { return FolderFaceRef{face}.currentOp(); }
    bool finish(const OperationRef& op) {
        return test::processEventsUntil([&] { return op->isFinished(); }, 60000);
    }
};

} // namespace

// Two operations on one folder at once could lock it under a running copy.
TEST_F(FolderTaskTest, FollowersWaitForTheOperationCurrentWhenTheyWereQueued) {
    Door firstDoor;
    auto first = scripted(face, [&](auto&, auto&) { return firstDoor.pass() ? std::nullopt : OperationResult(QVError{}); });
    ASSERT_TRUE(addFolderTask(queue, first));
    EXPECT_EQ(current(), first) << "busy from the moment the first task is queued";

    // Two more queued at once both wait for the first, not in a chain.
    auto second = scripted(face, nullptr), third = scripted(face, nullptr);
    ASSERT_TRUE(addFolderTask(queue, second));
    ASSERT_TRUE(addFolderTask(queue, third));
    EXPECT_EQ(second->dependencies(), std::vector<OperationRef>{first});
    EXPECT_EQ(third->dependencies(), std::vector<OperationRef>{first});
    ASSERT_TRUE(test::processEventsUntil([&] { return task(first)->ran.load(); }));
    test::processEventsFor(20);
    EXPECT_FALSE(task(second)->ran || task(third)->ran);
    firstDoor.opener.set_value();
    ASSERT_TRUE(finish(second) && finish(third));
    EXPECT_EQ(task(first)->currentAtStart.lock(), first);
    EXPECT_FALSE(hasCurrentOperation(face)) << "the folder is idle again";
}

TEST_F(FolderTaskTest, AFailedCurrentOperationStopsTheFollowerButAFailedTaskLetsGo) {
    // Left as current by something that ended in failure without letting go.
    auto failed = BlockOperation::blockOperationWithBlock([]() -> OperationResult {
        return QVError{QVAppErrorDomain(), 1001, "disk full"};
    });
    queue.addOperations({failed}, true);
    FolderFaceRef{face}.setCurrentOp(failed);
    auto follower = scripted(face, nullptr);
    ASSERT_TRUE(addFolderTask(queue, follower));
    ASSERT_TRUE(finish(follower));
    EXPECT_FALSE(task(follower)->ran);
    ASSERT_TRUE(follower->result());
    EXPECT_EQ(follower->result()->description, "disk full");
    EXPECT_FALSE(hasCurrentOperation(face));

    // A task clears the folder whatever it ends with, a throw included, so the next one runs.
    auto failing = scripted(face, [](auto&, auto&) { return OperationResult(QVError{"test", 1001, "no"}); });
    auto throwing = scripted(face, [](auto&, auto&) -> OperationResult { throw std::runtime_error("bug"); });
    auto next = scripted(face, nullptr);
    for (const auto& op : {failing, throwing, next}) addFolderTask(queue, op);
    // The two followers of `failing` may run in either order.
    ASSERT_TRUE(finish(throwing) && finish(next));
    EXPECT_TRUE(task(next)->ran);
    EXPECT_EQ(failing->result()->description, "no");
    EXPECT_EQ(throwing->result()->code, QVErrorRefused);
    EXPECT_FALSE(hasCurrentOperation(face));
    EXPECT_FALSE(addFolderTask(queue, next)) << "refused by the queue: the face is left as it was";
    EXPECT_FALSE(hasCurrentOperation(face));
}

TEST_F(FolderTaskTest, FailReportsAndTheLockChecksAskTheMountTable) {
    auto op = scripted(face, [&](ScriptedTask& self, const QVRecordRef& f) -> OperationResult {
        self.startIndeterminateProgress(f, "Encrypting...", true);
        return self.fail(f, "Folder is busy");
    });
    FolderFaceRef{face}.setProgressPercentage(Value(0.7));
    addFolderTask(queue, op);
    ASSERT_TRUE(finish(op));
    test::processEventsFor(20);
    EXPECT_EQ(op->result()->code, QVErrorFailed);
    ASSERT_EQ(notifications.texts(), std::vector<std::string>{"Folder is busy"});
    EXPECT_TRUE(notifications.shown()[0].sticky);
    EXPECT_TRUE(log.has("): failed locked/unlocked check 'Tax Papers': Folder is busy"));
    EXPECT_FALSE(FolderFaceRef{face}.cancelable().toBool());
    EXPECT_EQ(FolderFaceRef{face}.progressPercentage().toDouble(), 0.25) << "the row at rest again";

    // A path that doesn't exist is locked; "/" is always a mount point.
    auto base = std::make_shared<BaseFolderTask>();
    EXPECT_FALSE(base->failIfUnlocked(face, "unlocked"));
    EXPECT_EQ(base->failIfLocked(face, "locked")->description, "locked");
    QVRecordRef mounted = faceAt("/");
    EXPECT_EQ(base->failIfUnlocked(mounted, "unlocked")->code, QVErrorFailed);
    EXPECT_FALSE(base->failIfLocked(mounted, "locked"));
}

TEST_F(FolderTaskTest, CancelIsOnlyAFlagThatTheWorkPolls) {
    EXPECT_FALSE(cancelCurrentOperation(face)) << "an idle folder's control does its normal job";
    Door pressed;
    std::atomic<bool> reached{false};
    auto op = scripted(face, [&](ScriptedTask& self, const QVRecordRef& f) -> OperationResult {
        self.startIndeterminateProgress(f, "Copying...", true);  // cancellable
        reached = true;
        pressed.pass();
        const bool cancelled = FolderFaceRef{f}.opCanceled().toBool();
        self.endProgress(f);
        return cancelled ? OperationResult(QVError{QVAppErrorDomain(), QVErrorCancelled, "cancelled"}) : std::nullopt;
    });
    addFolderTask(queue, op);
    ASSERT_TRUE(test::processEventsUntil([&] { return reached.load(); }));
    EXPECT_TRUE(cancelCurrentOperation(face));
    EXPECT_FALSE(op->isCancelled()) << "nothing is stopped from outside";
    pressed.opener.set_value();
    ASSERT_TRUE(finish(op));
    test::processEventsFor(10);
    ASSERT_TRUE(op->result());
    EXPECT_EQ(op->result()->code, QVErrorCancelled);
    EXPECT_TRUE(FolderFaceRef{face}.opCanceled().isNull()) << "cleared for the next run";
}

TEST_F(FolderTaskTest, AnOperationCancelledOnItsQueueLeavesNoCycle) {
    // A private queue whose one slot is taken, so the task can be cancelled unrun.
    OperationQueue narrow;
    narrow.setMaxConcurrentOperationCount(1);
    Door door;
    narrow.addOperationWithBlock([&] { door.pass(); });
    std::weak_ptr<QVRecord> weakFace = face;
    std::weak_ptr<Operation> weakOp;
    {
        auto op = scripted(face, nullptr);
        weakOp = op;
        addFolderTask(narrow, op);
        op->cancel();
        door.opener.set_value();
        narrow.waitUntilAllOperationsAreFinished();
        EXPECT_FALSE(task(op)->ran);
        // The next task finds a finished current operation with no error and runs.
        auto next = scripted(face, nullptr);
        addFolderTask(queue, next);
        ASSERT_TRUE(finish(next));
        EXPECT_TRUE(task(next)->ran);
        FolderFaceRef{face}.setCurrentOp(op);
    }
    face.reset();
    EXPECT_TRUE(weakFace.expired());
    EXPECT_TRUE(weakOp.expired());
}
