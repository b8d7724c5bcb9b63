#pragma once
// The checks a path passes before it is taken in: a folder before it is
// encrypted (it must be able to live its whole life as a protected folder
// without harm: be copied into an image, sent to the Trash and re-made as an
// empty mount point), and a directory before disk images are kept in it. Each
// refusal is an error in the application's domain with a full sentence for the
// user.
//
// Main thread only: the checks read the Folder Set on show (FolderList), and a
// folder inside ~/.local is put to the user as a yes/no question through the
// notification centre's handler.
#include <sys/types.h>

#include <string>

#include "toolkit/QVError.h"
#include "vault/QVRecord.h"

namespace qv {

// Codes of the refusals beside the shared ones of QVError.h.
enum QVIntakeErrorCode : long {
    QVIntakeAlreadyEncrypted = -1301,
    QVIntakeNoReadWrite = -54,
    QVIntakeIsVolume = -961,
    QVIntakeNetworkVolume = -30586,
};

// Where the application's volumes of another system were mounted. Nothing of
// ours mounts there on Linux, but a folder below it is refused all the same.
inline constexpr const char* QVMountsDirectory = "/Volumes/QuillvaneMounts";

// What the checks read of a path at once, before they test anything. The item
// itself is examined, not what a symbolic link points to.
struct QVIntakeResourceValues {
    bool isSymbolicLink = false;
    bool isDirectory = false;
    bool isVolume = false;     // the root of a mounted file system
    bool isPackage = false;    // a sparse-bundle image of ours
    std::string volumePath;    // the mount point of the volume that holds it
    bool isReadable = false;   // for a directory: listable and searchable
    bool isWritable = false;
    uid_t owner = 0;           // the file security
    gid_t group = 0;
    mode_t mode = 0;
};

// Fills *values for `path`. False when the item can't be examined: *error then
// holds the reason (errno as code).
bool QVReadIntakeResourceValues(const std::string& path, QVIntakeResourceValues* values, QVError* error);

// May the folder at `path` be encrypted? Tests, in this order, stopping at the
// first refusal: attributes readable; a directory (a link to one is not); the
// home directory's volume readable; a sparse bundle is handed to
// isGoodSparseBundleAtURL and ends the checks; not a folder of the set already;
// not an application (".app"); readable and writable; not a volume; not inside
// our data directory; not ~/.local itself nor ~/.local/share; inside ~/.local
// only when the user says yes (a "no" answers false with *error cleared); not
// part of the program's install path; not the home directory; not inside the
// mounts directory, a protected folder, or holding one, our data or an image
// store; reachable; not on a network volume.
bool isGoodFolderAtURL(const std::string& path, QVError* error);

// May disk images be kept in the directory at `path`, for a folder whose mount
// point is `mountpointPath`? A sparse bundle passes without further tests;
// otherwise: a directory; not in the mount point (nor in any protected folder);
// not on a network volume; not a folder of the set; not an application;
// readable and writable; not part of the program's install path; reachable.
bool isGoodImageDestination(const std::string& path, const std::string& mountpointPath, QVError* error);

// A sparse bundle dropped to be imported: always accepted here; the import
// checks the image itself.
bool isGoodSparseBundleAtURL(const std::string& path, const QVIntakeResourceValues& info, QVError* error);

// The Storage that a folder accepted for encryption gets: the folder chosen for
// new images (QVDiskImageDestinationPath), named after its volume, when one is
// chosen and reachable; the default storage when none is chosen. Null with
// error -1 and "Default disk image location is not reachable. ..." when the
// chosen folder can't be reached (an external drive that isn't plugged in).
QVRecordRef QVStorageForNewFolder(QVError* error);

// The directory of the running program's install: where its executable lies.
std::string QVApplicationBundlePath();

} // namespace qv
