// Mounting a folder's image on the folder's own path, taking it away again, and
// renaming its volume.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "disk/DiskMaster.h"
#include "disk/DiskMasterSupport.h"
#include "disk/FileSystemVolumes.h"
#include "disk/MountpointMode.h"
#include "disk/ProcessRunner.h"
#include "disk/URLHelpers.h"
#include "sys/LoopDevices.h"
#include "sys/MountTable.h"
#include "sys/ProcList.h"
#include "sys/SystemPrograms.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/DBSubdb.h"
#include "vault/FacePresentation.h"
#include "vault/PropertyList.h"
#include "vault/Schemas.h"

namespace qv {

using namespace diskmaster;

namespace {

// A folder record changed by a detach reaches the disk with its Folder Set,
// which only the main thread saves.
void saveSetOf(const QVRecordRef& folder) {
    performBlockOnMainThread(
        [folder] {
            QVError error;
            if (DBSubdbRef subdb = QVRecordGetSubdb(folder); subdb && !subdb->save(&error))
                QV_LOG_WARN("couldn't save the Folder Set: " + error.description);
        },
        true);
}

// Whether `mount` is the folder's own path. While an image is being made, the
// folder's mountpoint is a temporary mount in its storage's Temp (the folder
// itself stays where it is): that directory is never made read-only, and its
// unmount is no reason to save the set in the middle of that work.
bool isOwnFolderPath(const diskmaster::FaceParts& parts, const std::string& mount) {
    if (mount != parts.mountpoint) return false;
    if (!parts.storage) return true;
    const std::string temp = QVTrimmedPath(StorageRef{parts.storage}.url().toURLPath()) + "/Temp/";
    return mount.rfind(temp, 0) != 0;
}

// e2label lives in /usr/sbin on merged systems and in /sbin on older ones.
std::string e2labelPath() {
    for (const char* candidate : {"/usr/sbin/e2label", "/sbin/e2label"})
        if (::access(candidate, X_OK) == 0) return candidate;
    return "/usr/sbin/e2label";
}

// A path with its symbolic links resolved, as the mount table spells it; the
// path itself when it can't be resolved.
std::string canonicalPath(const std::string& path) {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved)) return resolved;
    return path;
}

std::optional<QVMountEntry> mountEntryAt(const std::string& path) { return QVMountAt(canonicalPath(path)); }

bool isRegularFile(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// An existing directory with nothing in it that is not a volume already.
bool isUsableMountPoint(const std::string& path, std::string* why) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        *why = "'" + path + "': " + std::strerror(errno);
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        *why = "'" + path + "' is not a directory";
        return false;
    }
    if (isVolumeAtURL(path, nullptr)) {
        *why = "'" + path + "' is a mount point already";
        return false;
    }
    std::error_code ec;
    if (!std::filesystem::is_empty(path, ec) || ec) {
        *why = "'" + path + "' is not empty";
        return false;
    }
    return true;
}

bool waitForVolume(const std::string& path, bool present, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (true) {
        if (isVolumeAtURL(path, nullptr) == present) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

bool kernelLayerRequested() {
    const char* layer = std::getenv("QV_IMAGE_LAYER");
    return layer && std::string(layer) == "kernel" && ::geteuid() == 0;
}

// Mounts the ext4 of a disk served by `attach -nomount` on `mountpoint`.
bool mountServedDisk(const std::string& devEntry, const std::string& mountpoint, bool silently, std::string* why) {
    QVError runError;
    if (kernelLayerRequested()) {
        std::string options = "loop,nosuid,nodev";
        if (silently) options += ",x-gvfs-hide";
        quickCommand(kMount, {"-t", "ext4", "-o", options, devEntry, mountpoint}, std::span<const uint8_t>(),
                     &runError);
    } else {
        quickCommand(kFuse2fs, {devEntry, mountpoint, "-o", "fsname=" + devEntry + ",subtype=ext4"},
                     std::span<const uint8_t>(), &runError);
        if (runError.empty() && silently && ::geteuid() == 0) {
            // FUSE keeps no user-space options; file managers read x-gvfs-hide from
            // the table that mount(8) keeps, which only root may write.
            QVError hideError;
            quickCommand(kMount,
                         {"--fake", "-i", "--no-canonicalize", "-t", "fuse.ext4", "-o", "x-gvfs-hide", devEntry,
                          mountpoint},
                         std::span<const uint8_t>(), &hideError);
            if (!hideError.empty())
                QV_LOG_WARN("couldn't hide " + mountpoint + " from file managers: " +
                            trimmedMessage(hideError.description));
        }
    }
    if (!runError.empty()) {
        *why = trimmedMessage(runError.description);
        return false;
    }
    // fuse2fs may come back before the kernel shows the mount.
    if (!waitForVolume(mountpoint, true, std::chrono::seconds(10))) {
        *why = "the volume did not appear on " + mountpoint;
        return false;
    }
    return true;
}

// The mount options that file managers honour, as mount(8) keeps them for a
// mount point (FUSE mounts keep them only there).
bool isHiddenMount(const std::string& mountpoint) {
    const std::string canonical = canonicalPath(mountpoint);
    if (auto entry = QVMountAt(canonical);
        entry && (entry->options + "," + entry->superOptions).find("x-gvfs-hide") != std::string::npos)
        return true;
    return QVUserMountOptions(canonical).find("x-gvfs-hide") != std::string::npos;
}

enum class ServedUnmount { NotServed, Done, Busy, Failed };

// A volume that the alternative mount made over a served disk is not one that
// qv-image attached with a mount point, so it is taken down here: the file
// system first (refused while in use, unless forced), then the disk.
ServedUnmount unmountServedDiskVolume(const std::string& mountpoint, bool forcefully,
                                      std::optional<DiskMaster::Holder>* holder, std::string* why) {
    auto entry = mountEntryAt(mountpoint);
    if (!entry) return ServedUnmount::NotServed;
    std::string disk = entry->source;
    if (disk.rfind("/dev/loop", 0) == 0) disk = QVLoopBackingFile(disk);
    if (disk.empty() || disk.front() != '/' || !isRegularFile(disk)) return ServedUnmount::NotServed;
    if (entry->fsType != "ext4" && entry->fsType != "fuse.ext4" && entry->fsType != "fuseblk" &&
        entry->fsType != "fuse")
        return ServedUnmount::NotServed;

    if (!forcefully) {
        if (auto pids = processesUsingThisURL(entry->mountPoint); pids && !pids->empty()) {
            const pid_t pid = pids->front();
            if (holder) *holder = DiskMaster::Holder{pid, appForPid(pid).value_or(std::string())};
            return ServedUnmount::Busy;
        }
    }
    QVError runError;
    const bool kernelMount = entry->fsType == "ext4";
    if (kernelMount || ::geteuid() == 0) {
        std::vector<std::string> args{"-i", entry->mountPoint};
        if (forcefully) args.insert(args.begin(), "-l");
        quickCommand(kUmount, args, std::span<const uint8_t>(), &runError);
    } else {
        std::vector<std::string> args{"-u", entry->mountPoint};
        if (forcefully) args.insert(args.begin() + 1, "-z");
        quickCommand(kFusermount3, args, std::span<const uint8_t>(), &runError);
    }
    if (!runError.empty()) {
        *why = trimmedMessage(runError.description);
        return why->find("busy") != std::string::npos ? ServedUnmount::Busy : ServedUnmount::Failed;
    }
    // The file system may still be writing out; the disk goes once it lets go.
    QVError detachError;
    runImageTool({"detach", disk, "-force"}, std::nullopt, &detachError);
    if (!detachError.empty())
        QV_LOG_ERROR(QVFormat("the disk of %s is still served: %s", entry->mountPoint.c_str(),
                              trimmedMessage(detachError.description).c_str()));
    return ServedUnmount::Done;
}

// An ext4 label holds 16 bytes; a longer name is cut there, never inside a character.
std::string labelFor(const std::string& name) {
    if (name.size() <= 16) return name;
    size_t cut = 16;
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    return name.substr(0, cut);
}

// Attaches the image without a mount, gives its file system the label and
// detaches it again. The image must not be attached.
bool labelDetachedImage(const QVRecordRef& face, const FaceParts& parts, const std::string& label, std::string* why) {
    ImagePassword password(face, parts.folder);
    QVError error;
    if (!password.fill(&error)) {
        *why = error.description;
        return false;
    }
    auto output = runImageTool({"attach", parts.imagePath, "-plist", "-stdinpass", "-nomount"}, password.bytes(), &error);
    if (!error.empty()) {
        *why = trimmedMessage(error.description);
        return false;
    }
    auto plist = output ? QVPropertyListFromData(*output, &error) : std::nullopt;
    auto devEntry = plist ? DiskMaster::devEntryFromAttachPlist(*plist) : std::nullopt;
    if (!devEntry) {
        *why = "the image's disk could not be found";
        return false;
    }
    QVError labelError;
    quickCommand(e2labelPath(), {*devEntry, label}, std::span<const uint8_t>(), &labelError);
    QVError detachError;
    runImageTool({"detach", *devEntry}, std::nullopt, &detachError);
    if (!detachError.empty()) {
        QV_LOG_ERROR("couldn't detach " + *devEntry + ": " + trimmedMessage(detachError.description));
        runImageTool({"detach", *devEntry, "-force"}, std::nullopt, nullptr);
    }
    if (!labelError.empty()) {
        *why = trimmedMessage(labelError.description);
        return false;
    }
    return true;
}

} // namespace

// ---------------------------------------------------------------------- the rules

std::vector<std::string> DiskMaster::attachArgumentsForImage(const std::string& image, const std::string& mountpoint,
                                                             bool silently) {
    std::vector<std::string> args{"attach", image, "-mountpoint", mountpoint, "-noverify", "-noautofsck", "-stdinpass"};
    if (silently) args.push_back("-nobrowse");
    return args;
}

std::optional<DiskMaster::Holder> DiskMaster::holderFromDetachMessage(const std::string& message) {
    static const std::string kHeld = "held by ";
    const size_t at = message.rfind(kHeld);
    if (at == std::string::npos) return std::nullopt;
    const size_t pidAt = message.rfind(" (pid ");
    if (pidAt == std::string::npos || pidAt < at + kHeld.size()) return std::nullopt;
    const size_t digits = pidAt + 6;
    size_t end = digits;
    while (end < message.size() && message[end] >= '0' && message[end] <= '9') ++end;
    if (end == digits || end >= message.size() || message[end] != ')' || end - digits > 9) return std::nullopt;
    Holder holder;
    holder.pid = static_cast<pid_t>(std::stol(message.substr(digits, end - digits)));
    holder.name = message.substr(at + kHeld.size(), pidAt - at - kHeld.size());
    if (holder.pid <= 0) return std::nullopt;
    return holder;
}

std::optional<std::string> DiskMaster::devEntryFromAttachPlist(const Value& plist) {
    DictRef top = plist.toDict();
    if (!top) return std::nullopt;
    ArrayRef entities = QVDictGet(*top, "system-entities").toArray();
    if (!entities) return std::nullopt;
    for (const Value& entity : *entities) {
        DictRef e = entity.toDict();
        if (!e || !QVDictGet(*e, "potentially-mountable").toBool()) continue;
        const Value dev = QVDictGet(*e, "dev-entry");
        if (!dev.isString() || dev.toString().empty()) return std::nullopt;
        return dev.toString();
    }
    return std::nullopt;
}

// ---------------------------------------------------------------------- mounting

bool DiskMaster::mountDiskForFolderFace(const QVRecordRef& face, bool silently, const std::string& mountpoint,
                                        bool updateUI, QVError* error) {
    return hdiutilMountDiskForFolderFace(face, silently, mountpoint, updateUI, error);
}

bool DiskMaster::hdiutilMountDiskForFolderFace(const QVRecordRef& face, bool silently, const std::string& mountpoint,
                                               bool updateUI, QVError* error) {
    const FaceParts parts = partsOf(face);
    const std::string mount = mountpoint.empty() ? parts.mountpoint : mountpoint;
    if (!parts.folder || parts.imagePath.empty() || mount.empty()) {
        QV_LOG_FAILED("!folder.diskinfo.url || !mountpoint");
        QVSetAppError(error, QVErrorRefused, "Failed to mount disk image, error:\nThe folder has no disk image or no place to mount it.");
        return false;
    }
    ImagePassword password(face, parts.folder);
    if (updateUI) presentFolderFace(face, {.indeterminate = true, .status = std::string("Mounting disk image...")});
    QVError runError;
    // The folder's own path is read-only while locked; the mount needs write access to it.
    const bool ownPath = isOwnFolderPath(parts, mount);
    if (ownPath) QVGiveMountpointWriteAccess(parts.folder);
    if (password.fill(&runError))
        runImageTool(attachArgumentsForImage(parts.imagePath, mount, silently), password.bytes(), &runError);
    if (!runError.empty()) {
        if (ownPath) QVTakeMountpointWriteAccess(parts.folder);
        const std::string why = trimmedMessage(runError.description);
        QV_LOG_ERROR(QVFormat("failed to attach %s. Error: %s", parts.imagePath.c_str(), why.c_str()));
        QVSetAppError(error, runError.code, "Failed to mount disk image, error:\n" + why);
        return false;
    }
    presentFolderFace(face, {.locked = false}, true);
    return true;
}

bool DiskMaster::daMountDiskForFolderFace(const QVRecordRef& face, bool silently, const std::string& mountpoint,
                                          bool updateUI, QVError* error) {
    const FaceParts parts = partsOf(face);
    const std::string mount = mountpoint.empty() ? parts.mountpoint : mountpoint;
    const std::string name = QVLastPathComponent(parts.mountpoint);
    if (!parts.folder || parts.imagePath.empty() || mount.empty()) {
        QV_LOG_FAILED("!folder.diskinfo.url || !mountpoint");
        QVSetAppError(error, QVErrorRefused, "Failed to mount disk image, error:\n\nThe folder has no disk image or no place to mount it.");
        return false;
    }
    ImagePassword password(face, parts.folder);
    if (updateUI) presentFolderFace(face, {.indeterminate = true, .status = std::string("Mounting disk image...")});

    // Checked before anything is decrypted: nothing may end up served with no
    // place to mount it.
    std::string why;
    if (!isUsableMountPoint(mount, &why)) {
        QV_LOG_ERROR(QVFormat("failed to attach %s. Error: %s", parts.imagePath.c_str(), why.c_str()));
        QVSetAppError(error, QVErrorFailed, "Failed to mount disk image, error:\n\n" + why);
        return false;
    }
    QVError runError;
    std::optional<std::vector<uint8_t>> output;
    if (password.fill(&runError))
        output = runImageTool({"attach", parts.imagePath, "-plist", "-stdinpass", "-nomount"}, password.bytes(),
                              &runError);
    if (!runError.empty()) {
        why = trimmedMessage(runError.description);
        QV_LOG_ERROR(QVFormat("failed to attach %s. Error: %s", parts.imagePath.c_str(), why.c_str()));
        QVSetAppError(error, runError.code, "Failed to mount disk image, error:\n\n" + why);
        return false;
    }

    QVError parseError;
    auto plist = QVPropertyListFromData(output.value_or(std::vector<uint8_t>()), &parseError);
    if (!plist) {
        QV_LOG_ERROR(QVFormat("failed to read output on attach of '%s': %s", parts.imagePath.c_str(),
                              parseError.description.c_str()));
        QVSetAppError(error, QVErrorUnknown, QVFormat("Failed to mount %s:\n\n%s", name.c_str(), parseError.description.c_str()));
        return false;
    }
    const auto devEntry = devEntryFromAttachPlist(*plist);
    if (!devEntry) {
        QV_LOG_ERROR(QVFormat("couldn't figure out bsd name of device to mount for disk image '%s', info: %s",
                              parts.imagePath.c_str(), plist->description().c_str()));
        QVSetAppError(error, QVErrorFailed,
                      QVFormat("Could not mount disk image for %s. See system log for more info.", name.c_str()));
        return false;
    }

    if (!mountServedDisk(*devEntry, mount, silently, &why)) {
        QV_LOG_ERROR(QVFormat("error mounting volume: %s", why.c_str()));
        QV_LOG_ERROR(QVFormat("mount failed for: %s", mount.c_str()));
        // A half-made mount goes first, then the served disk itself.
        if (isVolumeAtURL(mount, nullptr)) unmountServedDiskVolume(mount, true, nullptr, &why);
        QVError detachError;
        runImageTool({"detach", *devEntry, "-force"}, std::nullopt, &detachError);
        if (!detachError.empty())
            QV_LOG_ERROR(QVFormat("couldn't detach %s: %s", devEntry->c_str(),
                                  trimmedMessage(detachError.description).c_str()));
        QVSetAppError(error, QVErrorFailed,
                      QVFormat("Could not mount volume for %s. See system log for more info.", name.c_str()));
        return false;
    }
    // Volumes here stay mounted across a logout; the folder's lock rules take them down.
    QVLogInfo(QVFormat("no eject-on-logout for volumes on this system: %s stays mounted until locked", mount.c_str()));
    presentFolderFace(face, {.locked = false}, true);
    return true;
}

// ---------------------------------------------------------------------- unmounting

bool DiskMaster::unmountDiskForFolderFace(const QVRecordRef& face, const std::string& mountpoint, bool forcefully,
                                          bool updateUI, QVError* error) {
    const FaceParts parts = partsOf(face);
    const std::string mount = mountpoint.empty() ? parts.mountpoint : mountpoint;
    const std::string name = QVLastPathComponent(parts.mountpoint.empty() ? mount : parts.mountpoint);
    struct stat st;
    // A volume whose server died can't be examined, but must be detached all the same.
    if (mount.empty() || (::lstat(mount.c_str(), &st) != 0 && errno != ENOTCONN && errno != EIO)) {
        const int err = mount.empty() ? ENOENT : errno;
        QV_LOG_FAILED("!lstat(mount)");
        QVSetError(error, QVPOSIXErrorDomain, err,
                   QVFormat("Couldn't find the volume at '%s': %s", mount.c_str(), std::strerror(err)));
        return false;
    }
    if (updateUI)
        presentFolderFace(face, {.indeterminate = true, .animate = true, .status = std::string("Locking folder...")});

    std::vector<std::string> args{"detach", mount};
    if (forcefully) args.push_back("-force");
    QVError runError;
    runImageTool(args, std::nullopt, &runError);
    std::optional<Holder> holder;
    long status = runError.code;
    std::string why = trimmedMessage(runError.description);
    if (!runError.empty() && runError.code == QVImageExitFailure) {
        // Not a mount qv-image made: perhaps one of the alternative mount.
        std::string servedWhy;
        switch (unmountServedDiskVolume(mount, forcefully, &holder, &servedWhy)) {
            case ServedUnmount::NotServed: break;
            case ServedUnmount::Done: runError = QVError(); break;
            case ServedUnmount::Busy:
                status = QVImageExitBusy;
                if (!servedWhy.empty()) why = servedWhy;
                break;
            case ServedUnmount::Failed: why = servedWhy; break;
        }
    }
    if (runError.empty()) {
        if (isOwnFolderPath(parts, mount) && QVTakeMountpointWriteAccess(parts.folder)) saveSetOf(parts.folder);
        presentFolderFace(face, {.locked = true}, true);
        return true;
    }
    QV_LOG_FAILED("detachStatus != 0");
    if (status == QVImageExitBusy && !holder) holder = holderFromDetachMessage(why);
    if (holder && holder->pid > 0) {
        // The process table names it best; the helper's words serve when it has gone since.
        std::string app = appForPid(holder->pid).value_or(holder->name);
        if (app.empty()) app = QVFormat("pid %d", int(holder->pid));
        QV_LOG_WARN(QVFormat("couldn't lock because of (%d): %s", int(holder->pid), app.c_str()));
        QVSetAppError(error, QVErrorFailed,
                      QVFormat("Application %s prevented %s from locking.\n\nPlease quit it and/or close any open "
                               "documents.",
                               app.c_str(), name.c_str()));
        return false;
    }
    QVSetError(error, QVVolumeErrorDomain, status == QVImageExitBusy ? long(QVErrorBusyVolume) : status, why);
    return false;
}

// ---------------------------------------------------------------------- renaming

bool DiskMaster::renameDiskForFolderFace(const QVRecordRef& face, const std::string& name,
                                         const std::string& mountpoint, bool /*updateUI*/, QVError* error) {
    const FaceParts parts = partsOf(face);
    const std::string mount = mountpoint.empty() ? parts.mountpoint : mountpoint;
    QVError volumeError;
    if (!isVolumeAtURL(mount, &volumeError)) {
        QV_LOG_ERROR(QVFormat("not a volume: %s", mount.c_str()));
        if (!volumeError.empty()) {
            if (error) *error = volumeError;
        } else {
            QVSetAppError(error, QVErrorRefused, "This shouldn't happen! Asked to rename a volume that is not a volume!");
        }
        return false;
    }
    const std::string label = labelFor(name);
    const std::string oldName = QVLastPathComponent(mount);
    const auto entry = mountEntryAt(mount);
    if (!entry || entry->source.empty()) {
        QV_LOG_ERROR(QVFormat("failed to create disk ref for: %s", mount.c_str()));
        QVSetAppError(error, QVErrorFailed, QVFormat("Internal error renaming '%s' => '%s'", oldName.c_str(), name.c_str()));
        return false;
    }

    if (entry->fsType == "ext4") {
        // The kernel's ext4 takes a new label while mounted (e2label asks it).
        QVError labelError;
        quickCommand(e2labelPath(), {entry->source, label}, std::span<const uint8_t>(), &labelError);
        if (!labelError.empty()) {
            const std::string why = trimmedMessage(labelError.description);
            QV_LOG_ERROR(QVFormat("error %ld renaming volume, dissenter gave status: %s", labelError.code, why.c_str()));
            QVSetAppError(error, labelError.code,
                          QVFormat("Error %ld renaming '%s'. Reason: %s", labelError.code, oldName.c_str(), why.c_str()));
            return false;
        }
        return true;
    }
    if (entry->fsType.rfind("fuse", 0) != 0) {
        QV_LOG_ERROR(QVFormat("rename '%s' vol => '%s' didn't run: %s is no image volume", mount.c_str(), name.c_str(),
                              entry->fsType.c_str()));
        QVSetAppError(error, QVErrorFailed, QVFormat("Internal error renaming '%s' => '%s'", oldName.c_str(), name.c_str()));
        return false;
    }

    // fuse2fs keeps the superblock in memory and writes it back when it ends:
    // a label written under it would be lost, and the checksum with it. So the
    // volume comes down, the label is written while nothing has the file
    // system open, and the volume goes back where it was.
    const bool hidden = isHiddenMount(mount);
    QVError detachError;
    runImageTool({"detach", mount}, std::nullopt, &detachError);
    if (!detachError.empty()) {
        const std::string why = trimmedMessage(detachError.description);
        QV_LOG_ERROR(QVFormat("error %ld renaming volume, dissenter gave status: %s", detachError.code, why.c_str()));
        QVSetAppError(error, detachError.code,
                      QVFormat("Error %ld renaming '%s'. Reason: %s", detachError.code, oldName.c_str(), why.c_str()));
        return false;
    }
    std::string why;
    const bool labelled = labelDetachedImage(face, parts, label, &why);
    if (!labelled) QV_LOG_ERROR(QVFormat("error renaming volume of %s: %s", parts.imagePath.c_str(), why.c_str()));

    ImagePassword password(face, parts.folder);
    QVError mountError;
    if (password.fill(&mountError))
        runImageTool(attachArgumentsForImage(parts.imagePath, mount, hidden), password.bytes(), &mountError);
    if (!mountError.empty()) {
        const std::string mountWhy = trimmedMessage(mountError.description);
        QV_LOG_ERROR(QVFormat("failed to attach %s. Error: %s", parts.imagePath.c_str(), mountWhy.c_str()));
        // The folder is locked now, whatever the label became.
        presentFolderFace(face, {.locked = true}, true);
        QVSetAppError(error, mountError.code,
                      QVFormat("Error %ld renaming '%s'. Reason: the volume could not be mounted again: %s",
                               mountError.code, oldName.c_str(), mountWhy.c_str()));
        return false;
    }
    if (!labelled) {
        QVSetAppError(error, QVErrorFailed,
                      QVFormat("Error %d renaming '%s'. Reason: %s", int(QVErrorFailed), oldName.c_str(), why.c_str()));
        return false;
    }
    return true;
}

} // namespace qv
