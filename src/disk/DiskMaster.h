#pragma once
// DiskMaster: the blocking operations on a folder's disk image: creating it
// from the folder's contents, mounting it on the folder's own path, taking it
// away again, and renaming its volume. All image work is done by the helper
// program qv-image, run as a child process with the image password on its
// standard input (never in its arguments, never in a log).
//
// Every operation blocks for as long as the helper runs, so none of them may be
// called on the main thread in the program; a face's presentation fields are
// only written through blocks posted to the main thread, and `locked` is
// changed there while the caller waits, so that a task sees its own result.
//
// A `mountpoint` argument that is empty means the folder's own `mountpoint`.
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "disk/CopyEngine.h"
#include "sys/ImageToolStatus.h"
#include "toolkit/QVError.h"
#include "vault/QVRecord.h"
#include "vault/ScryptParams.h"

namespace qv {

class IconFamily;  // the icon library's type; no volume icons are set yet

// Options of createDiskForFolderFace; callers pass them as numbers.
enum DiskCreateOptions : unsigned {
    // Post status text and progress to the face (and ask the same of the size
    // walk, the mount and the unmount).
    DiskCreateUpdateUI = 1,
    // Leave a successfully created image mounted on its temporary mount point
    // and store that path as the folder's `mountpoint`: the caller then owns
    // both the mount and the directory.
    DiskCreateKeepMounted = 2,
    // Copy no contents into the image. Nothing of the folder is read then: the
    // image is sized, and the room checked, for the folder's recorded
    // `folderSize` (0 when it has none) instead of a walk of its path.
    DiskCreateSkipCopy = 4,
    // Leave the new volume's search indexing as it is.
    DiskCreateSkipSpotlight = 8,
};

// The domain of an unmount that failed for a reason of the volume itself; the
// code is the helper's exit status, or QVErrorBusyVolume (-47) for a busy
// volume whose holder could not be named.
inline constexpr const char* QVVolumeErrorDomain = "OSStatus";

// Settings of a new image when the caller leaves them to createDiskForFolderFace.
inline constexpr const char* QVDiskDefaultEncryption = "AES-256";
inline constexpr const char* QVDiskDefaultFilesystem = "HFS+J";
inline constexpr uint64_t QVDiskMinimumCapacity = 10737418240ULL;  // 10 GiB
// Room kept free beyond the folder's size on the storage's volume.
inline constexpr uint64_t QVDiskSpaceMargin = 104857600ULL;  // 100 MiB

class DiskMaster {
public:
    DiskMaster() = delete;

    // ------------------------------------------------------------------ creation

    // Turns the folder's present contents into a new encrypted image at the
    // path its DiskInfo names, through a temporary mount point in the storage's
    // Temp directory. `diskInfoSettings` 0 fills the DiskInfo with the defaults
    // (AES-256, HFS+J, capacity by defaultCapacityForFolderSize); any other value
    // means the caller has set encryption, file system and capacity. `icon` is
    // not used yet (pass nullptr). On failure nothing is left behind: neither
    // the new image nor the temporary directory. An image that was at the path
    // before is replaced once the new one is made; if making it fails, the old
    // one stays.
    // Errors: 1001 "Couldn't figure out free space available."; 1003 "Not enough
    // space available. Please free at least <size>."; the helper's exit status
    // with "Failed to create disk image, error:\n\n<why>"; those of the size
    // walk, the mount, the copy (1000 when cancelled) and the diskinfo file.
    // `tokenParameters`, when given, are the scrypt parameters the image's
    // token is made with (measured once by a caller that makes many images at
    // once); otherwise the helper measures its own.
    static bool createDiskForFolderFace(const QVRecordRef& face, long diskInfoSettings, unsigned options,
                                        const IconFamily* icon, QVError* error,
                                        const QVScryptParams* tokenParameters = nullptr);

    // Deletes an image directory that is not to be kept, also while its device
    // process is still letting go of a band after a forced detach. False (logged)
    // when it could not be removed.
    static bool removeImage(const std::string& imagePath);

    // The progress and cancel callback of a copy of `size` bytes into or out of
    // the face's image: it shows the fraction done and "Time left: ..." on the
    // face (posted to the main thread) and answers the face's `opCanceled`.
    static QVCopyCancelBlock copyCancelBlockForFolderFace(const QVRecordRef& face, uint64_t size);

    // ------------------------------------------------------------------ mounting

    // Attaches the folder's image and mounts its volume on `mountpoint` (empty:
    // the folder's own path), which must be an empty directory. `silently` keeps
    // the volume out of file managers' lists. On success the face's `locked` is
    // false. A wrong password fails with code 3 (QVImageExitWrongPassword); every
    // failure reads "Failed to mount disk image, error:\n<why>" and leaves
    // `locked` as it was.
    static bool mountDiskForFolderFace(const QVRecordRef& face, bool silently, const std::string& mountpoint,
                                       bool updateUI, QVError* error);
    // The mount in use: one run of `qv-image attach ... -mountpoint`.
    static bool hdiutilMountDiskForFolderFace(const QVRecordRef& face, bool silently, const std::string& mountpoint,
                                              bool updateUI, QVError* error);
    // The alternative, kept ready but chosen by nobody: the image is attached
    // without a mount (`attach -plist -nomount`), and the disk it serves is then
    // mounted here: by fuse2fs, or by the kernel through a loop device when we
    // are root and QV_IMAGE_LAYER is "kernel". A mount that fails detaches the
    // disk again, so that no decrypted disk stays served with nothing on it.
    static bool daMountDiskForFolderFace(const QVRecordRef& face, bool silently, const std::string& mountpoint,
                                         bool updateUI, QVError* error);

    // Unmounts the volume on `mountpoint` (empty: the folder's own path) and
    // detaches its image. Without `forcefully` a volume that a process still
    // uses is refused: code 1001 "Application <name> prevented <folder> from
    // locking.\n\nPlease quit it and/or close any open documents.", or
    // QVErrorBusyVolume (-47) when no holder could be named. `forcefully` takes
    // the volume away at once whoever uses it. On success the face's `locked`
    // is true. `error` must not be null.
    static bool unmountDiskForFolderFace(const QVRecordRef& face, const std::string& mountpoint, bool forcefully,
                                         bool updateUI, QVError* error);

    // Gives the mounted volume on `mountpoint` (empty: the folder's own path) a
    // new name: the ext4 label of the image's file system (at most 16 bytes; a
    // longer name is cut, never inside a character). `updateUI` is not used.
    static bool renameDiskForFolderFace(const QVRecordRef& face, const std::string& name,
                                        const std::string& mountpoint, bool updateUI, QVError* error);

    // ------------------------------------------------------------------ rescue and relocation

    // Hands the folder's image password to the user (main thread): decrypted
    // under its Folder Set's password, written (atomically, mode 0600) to
    // "<name> - PASSWORD (DELETE ME!).txt" in `location` or, without one, on the
    // Desktop, and put on the clipboard (RescueFrontEnd.h). A sticky critical
    // post then says where the password is; when the clipboard can't take it,
    // the front end's secret alert shows the password itself so that it can be
    // written down (never the notification centre, which logs its posts).
    // <name> is the folder's last path component, "(null)" without one. True
    // when the password reached the user by one of these ways. False (with a
    // critical post naming the image) when it can't be decrypted: nothing is
    // written then.
    static bool rescuePassWord(const QVRecordRef& folder, const std::optional<std::string>& location);

    // Asks for a place (the save panel, proposed "<name>.<image extension>" on
    // the Desktop), moves the image there, hands over its password beside it,
    // shows the moved image in the file manager, and takes the folder out of
    // the list and its set. True when all that was done. A failed move leaves
    // image and record as they were ("Couldn't move disk image"). A cancel ends
    // it when `cancelAllowed`; otherwise the user is told to choose a place and
    // asked again, for as long as a save panel is installed. Main thread.
    static bool rescueDiskImageForFolderFace(const QVRecordRef& face, bool cancelAllowed);

    // Moves (or copies) the face's image to `destination` (its new path, name
    // included), with the face's progress and cancel. The record is not
    // changed: the caller points it at the new place. Errors: the sanity
    // check's code with "Error checking image file for '<image>' :\n\n<why>";
    // 1000 "Operation cancelled"; 1006 (move) "Error moving image file ..."; any
    // other failure of a move keeps the copy engine's error; every failure of a
    // copy but a cancel reads "Error copying image file '<image>' :\n\n<why>".
    // Blocking: task threads only.
    static bool moveImageFileForFolderFace(const QVRecordRef& face, const std::string& destination, QVError* error);
    static bool copyImageFileForFolderFace(const QVRecordRef& face, const std::string& destination, QVError* error);

    // Whether `password` opens the image (`qv-image imageinfo <image> -plist
    // -stdinpass`, the password on standard input). Blocking.
    static bool checkPasswordDiskImage(const std::string& image, const std::string& password);

    // ------------------------------------------------------------------ the rules, for tests

    // The greater of ten times the folder's size and 10 GiB (saturating).
    static uint64_t defaultCapacityForFolderSize(uint64_t folderSize);
    // How many bytes are missing on a volume with `available` free bytes for a
    // folder of `folderSize`: 0 when available >= size + 100 MiB.
    static uint64_t spaceShortfall(int64_t available, uint64_t folderSize);
    // The helper's create arguments for the folder, word for word ("create",
    // "-encryption", ..., "-ov", <image>); empty with error 1001 when the folder
    // lacks a DiskInfo, its url, encryption, file system or capacity, or a
    // mountpoint to name the volume after.
    static std::vector<std::string> createArgumentsForFolder(const QVRecordRef& folder, QVError* error);
    // "attach" <image> "-mountpoint" <mount> "-noverify" "-noautofsck" "-stdinpass", then "-nobrowse" when silent.
    static std::vector<std::string> attachArgumentsForImage(const std::string& image, const std::string& mountpoint,
                                                            bool silently);
    // The status line of a copy: "Time left: ..." or nothing.
    static std::optional<std::string> copyStatusText(uint64_t bytesCompleted, double throughput, uint64_t size);
    // The holder named in the helper's refusal "... held by <name> (pid <pid>)".
    struct Holder {
        pid_t pid = 0;
        std::string name;
    };
    static std::optional<Holder> holderFromDetachMessage(const std::string& message);
    // The first "dev-entry" among the "system-entities" whose "potentially-mountable"
    // is true in the output of `attach -plist -nomount`; nullopt when there is none.
    static std::optional<std::string> devEntryFromAttachPlist(const Value& plist);
};

} // namespace qv
