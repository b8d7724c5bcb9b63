#pragma once
// What the image maintenance tasks share: one run of qv-image on a folder's
// image with the image password on its standard input, and the frame of the
// tasks that change an image on disk (compact, resize), which must have the
// folder locked while they work and unlocked again afterwards.
#include <functional>
#include <string>
#include <vector>

#include "tasks/BaseFolderTask.h"

namespace qv {

// What one run of qv-image left: its standard output as text and, when it
// failed, why.
struct ImageToolRun {
    std::string output;
    OperationResult error;
};

// Runs qv-image with `args`; with `stdinpass` the folder's image password
// (decrypted under its Folder Set's password for this one run, then
// overwritten) goes to its standard input. Blocking: task threads only.
ImageToolRun QVRunImageToolForFace(const QVRecordRef& folderFace, const std::vector<std::string>& args, bool stdinpass);

// The frame of a task that changes the image on disk:
//  1. the folder is locked by a LockFolderTask run on this very thread (a lock
//     that fails ends the task before the image is touched);
//  2. a folder still unlocked is refused with `refusal` (its "%s" the image's
//     path);
//  3. the row shows `progress`, with no cancel;
//  4. `work` runs (and tells the user how it went itself);
//  5. the folder is unlocked by an UnlockFolderTask run on this thread, whatever
//     `work` ended with, so that a failed step never leaves the folder locked;
//     the unlock's error is the result.
// The inner tasks are not queued: the folder's current operation stays the
// caller's, and no other task of the folder can run in between.
OperationResult QVRunWithFolderLocked(BaseFolderTask& task, const QVRecordRef& folderFace, const char* refusal,
                                      const std::string& progress, const std::function<void()>& work);

// The image path of the face's folder ("" without one).
std::string QVImagePathOfFace(const QVRecordRef& folderFace);

} // namespace qv
