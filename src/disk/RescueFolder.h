#pragma once
// The rescue folder: the directory in a storage's Temp on which a restore
// mounts the folder's image while it copies the contents out ("_Rescued
// Items", then "_Rescued Items_1", "_Rescued Items_2", ...).
//
// A restore that dies leaves its image mounted there, and a live volume in
// Temp can't tell whose it is. So the restore holds a claim on its rescue
// folder for as long as it works: an advisory lock on a hidden owner file
// beside it ("._Rescued Items.owner"), which the kernel drops when the holder
// dies. A mounted rescue folder that nobody claims is a dead restore's.
#include <memory>
#include <optional>
#include <string>

namespace qv {

inline constexpr const char* QVRescueFolderName = "_Rescued Items";

// The candidate name with `index` (0: "_Rescued Items", n: "_Rescued Items_n").
std::string QVRescueFolderCandidate(unsigned long index);
// Whether `name` is one of the candidates.
bool QVIsRescueFolderName(const std::string& name);

class QVRescueFolderClaim {
public:
    ~QVRescueFolderClaim();
    QVRescueFolderClaim(const QVRescueFolderClaim&) = delete;
    QVRescueFolderClaim& operator=(const QVRescueFolderClaim&) = delete;

    const std::string& path() const { return path_; }
    // Removes the rescue folder (which must be empty and unmounted) and lets
    // the claim go. False, with the errno in *err, when the folder stays.
    bool removeFolder(int* err);

    // The first candidate in `tempDir` that can't be reached, made (0700, with
    // its intermediates) and claimed; nothing (logged) when it can't be made.
    static std::unique_ptr<QVRescueFolderClaim> make(const std::string& tempDir);

private:
    QVRescueFolderClaim(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}
    std::string path_;
    int fd_;
};

// Whether the rescue folder at `path` is claimed by a living process.
bool QVRescueFolderIsClaimed(const std::string& path);
// The owner file of the rescue folder at `path`.
std::string QVRescueFolderOwnerFile(const std::string& path);

} // namespace qv
