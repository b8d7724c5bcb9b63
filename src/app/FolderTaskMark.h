#pragma once
// A mark that a process is working on a folder, seen by every process of the
// user: the desktop application and any number of qv runs share one database and
// one set of images, and two of them must never run tasks on one folder at once.
// The mark is an advisory lock (flock) on a file named after the folder's uuid in
// the private runtime directory; the kernel drops it when its holder dies, so a
// crashed process never leaves a folder marked.
#include <memory>
#include <string>

namespace qv {

class FolderTaskMark {
public:
    // Marks the folder for this process; null when another process holds the mark
    // (or the runtime directory can't be made).
    static std::unique_ptr<FolderTaskMark> hold(const std::string& folderUuid);
    // Whether some process (this one included) holds the folder's mark.
    static bool isHeld(const std::string& folderUuid);

    ~FolderTaskMark();
    FolderTaskMark(const FolderTaskMark&) = delete;
    FolderTaskMark& operator=(const FolderTaskMark&) = delete;

private:
    explicit FolderTaskMark(int fd) : fd_(fd) {}
    int fd_;
};

} // namespace qv
