#pragma once
// Volumes mounted or unmounted by anything (this program, qv, the file
// manager, a terminal) show on the folder list: the face whose mount point it
// is gets `locked` from the event, and faces below it are measured again,
// since a folder on that volume came or went.
#include <memory>
#include <string>

#include "sys/MountWatcher.h"

namespace qv {

// A volume at `path` was mounted (locked false) or unmounted (locked true).
// Main thread.
void QVFolderStatusChangedOutside(const std::string& path, bool locked);
// Queues the folder list's measuring task for each face whose mount point lies
// below `path` (not at it). Main thread.
void QVUpdateExternalImages(const std::string& path);
// Both, for every change.
void QVApplyMountChanges(const QVMountChanges& changes);

// Watches the mount table for as long as it lives and applies its changes.
class QVVolumeNotices {
public:
    QVVolumeNotices();
    bool start(const std::string& mountinfoPath = "/proc/self/mountinfo");
    QVMountWatcher& watcher() { return watcher_; }

private:
    QVMountWatcher watcher_;
};

} // namespace qv
