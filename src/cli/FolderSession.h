#pragma once
// What the folder commands of qv share: the Folder Set opened by a password and
// shown in the folder list, the tasks queued on the process's task queue and
// waited for while the main thread turns its event loop, their progress shown
// on the terminal, Ctrl-C turned into a cooperative cancel of the running tasks,
// and the notifications printed on standard error.
#include <memory>
#include <string>
#include <vector>

#include "app/FolderTaskMark.h"
#include "toolkit/OperationQueue.h"
#include "vault/DBMaster.h"
#include "vault/QVRecord.h"

namespace qv::cli {

class FolderSession {
public:
    FolderSession();
    // Takes the folder list down, returns the set and flushes the notifications.
    ~FolderSession();
    FolderSession(const FolderSession&) = delete;
    FolderSession& operator=(const FolderSession&) = delete;

    // Opens the database and the set of the password read from the terminal or
    // standard input, and shows it in the folder list. An exit code on failure
    // (after a complaint), ExitOK on success.
    int open();

    // The face of the folder at `path` (made absolute, without a trailing slash),
    // or null.
    QVRecordRef faceForPath(const std::string& path) const;
    // `path` made absolute and clean ("." and ".." resolved lexically; symbolic
    // links are kept, since a folder's path is what the user named).
    static std::string absolutePath(const std::string& path);

    // Marks the folder as worked on by this process, for the session's length.
    // False, after a complaint, when another process works on it.
    bool claim(const QVRecordRef& folder);
    // The face of the folder at `path`, claimed for this process; null after a
    // complaint (not a folder of the set, or another process works on it), with
    // ExitRefused in *exitCode.
    QVRecordRef claimFace(const std::string& path, int* exitCode);

    // Queues a task's operation on the process's task queue and waits for the
    // queue to empty (waitForTasks). False after a complaint when it could not
    // be queued.
    bool runTask(const OperationRef& operation);

    // The state word of `qv status`: "damaged", "missing", "locked" or "unlocked".
    static const char* stateWord(const QVRecordRef& face);

    // Turns the event loop until the task queue is empty, showing progress and
    // cancelling the running tasks on Ctrl-C. True unless Ctrl-C was pressed.
    bool waitForTasks();

private:
    DBMasterRef master_;
    std::vector<std::unique_ptr<FolderTaskMark>> marks_;
};

} // namespace qv::cli
