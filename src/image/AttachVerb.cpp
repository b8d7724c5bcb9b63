// attach: unlock an image, serve its disk from a background device process,
// and mount the ext4 on it (fuse2fs, or the kernel through a loop device).
// Any failure undoes every step taken.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "image/DeviceProcess.h"
#include "image/Helpers.h"
#include "image/ImageBundle.h"
#include "image/ImageTool.h"
#include "image/Options.h"
#include "image/VerbSupport.h"
#include "sys/MountTable.h"
#include "sys/ProcList.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "vault/PropertyList.h"

namespace qv::image {

namespace {

// An existing, empty directory that is not a mount point already.
bool checkMountPoint(const std::string& given, std::string* canonical, QVError* error) {
    char resolved[PATH_MAX];
    if (!::realpath(given.c_str(), resolved)) {
        if (errno == ENOENT || errno == ENOTDIR)
            return fail(error, QVImageExitBadMountPoint, "mount point '" + given + "' does not exist");
        return failErrno(error, errno, "cannot reach mount point '" + given + "'", QVImageExitBadMountPoint);
    }
    struct stat st {}, parent {};
    if (::stat(resolved, &st) != 0)
        return failErrno(error, errno, "cannot reach mount point '" + given + "'", QVImageExitBadMountPoint);
    if (!S_ISDIR(st.st_mode))
        return fail(error, QVImageExitBadMountPoint, "mount point '" + given + "' is not a directory");
    const std::string path = resolved;
    const std::string up = QVParentPath(path);
    if (path == "/" || QVMountAt(path) || (::stat(up.c_str(), &parent) == 0 && parent.st_dev != st.st_dev))
        return fail(error, QVImageExitBadMountPoint, "'" + given + "' is a mount point already");
    DIR* dir = ::opendir(resolved);
    if (!dir) return failErrno(error, errno, "cannot read mount point '" + given + "'", QVImageExitBadMountPoint);
    bool empty = true;
    while (dirent* e = ::readdir(dir)) {
        const std::string name = e->d_name;
        if (name != "." && name != "..") {
            empty = false;
            break;
        }
    }
    ::closedir(dir);
    if (!empty) return fail(error, QVImageExitBadMountPoint, "mount point '" + given + "' is not empty");
    *canonical = path;
    return true;
}

bool mountWithFuse2fs(Attachment* a, bool nobrowse, QVError* error) {
    // Writes of up to 128 KiB (the most this fuse2fs can take) instead of one
    // page at a time. (Keeping file pages cached across opens measured slower:
    // the disk below is already in the page cache.)
    const std::vector<std::string> args{a->devEntry, a->mountPoint, "-o",
                                        "fsname=" + a->devEntry + ",subtype=ext4," + kFuse2fsSpeedOptions};
    // fuse2fs mounts, then leaves a daemon behind and returns; it may return 0
    // without mounting, so the mount table has the last word.
    ProgramResult r = runProgram(kFuse2fs, args);
    if (!r.ok()) return fail(error, QVImageExitFailure, "fuse2fs failed: " + r.summary());
    if (!waitUntil([&] { return QVMountAt(a->mountPoint).has_value(); }, std::chrono::seconds(10)))
        return fail(error, QVImageExitFailure, "fuse2fs did not mount the volume: " + r.summary());
    std::vector<std::string> argv{kFuse2fs};
    argv.insert(argv.end(), args.begin(), args.end());
    a->fsPid = QVFindProcessByArguments(argv);
    if (nobrowse && ::geteuid() == 0) {
        // FUSE takes no user-space options; the mount table of user-space
        // options (utab), where file managers look for x-gvfs-hide, is written
        // by mount(8) without mounting again. Only root may write it.
        ProgramResult hide = runProgram(kMount, {"--fake", "-i", "--no-canonicalize", "-t", "fuse.ext4", "-o",
                                                 "x-gvfs-hide", a->devEntry, a->mountPoint});
        if (!hide.ok()) QV_LOG_WARN("cannot mark " + a->mountPoint + " hidden: " + hide.summary());
    }
    return true;
}

bool mountWithKernel(Attachment* a, bool nobrowse, QVError* error) {
    std::string options = "loop,nosuid,nodev";
    if (nobrowse) options += ",x-gvfs-hide";
    ProgramResult r = runProgram(kMount, {"-t", "ext4", "-o", options, a->devEntry, a->mountPoint});
    if (!r.ok()) return fail(error, QVImageExitFailure, "mount failed: " + r.summary());
    std::optional<QVMountEntry> m;
    if (!waitUntil([&] { return (m = QVMountAt(a->mountPoint)).has_value(); }, std::chrono::seconds(10)))
        return fail(error, QVImageExitFailure, "the kernel did not mount the volume");
    a->loopDevice = m->source;
    return true;
}

void unmountAfterFailure(const Attachment& a) {
    if (a.mountPoint.empty() || !QVMountAt(a.mountPoint)) return;
    if (a.layer == "kernel" || ::geteuid() == 0) {
        runProgram(kUmount, {"-i", "-l", a.mountPoint});
    } else {
        runProgram(kFusermount3, {"-u", "-z", a.mountPoint});
    }
}

bool printEntities(const Attachment& a, QVError* error) {
    Dict entity;
    entity["potentially-mountable"] = Value(true);
    entity["dev-entry"] = Value(a.devEntry);
    entity["content-hint"] = Value(std::string("Linux_Filesystem"));
    entity["volume-kind"] = Value(std::string("ext4"));
    if (!a.mountPoint.empty()) entity["mount-point"] = Value(a.mountPoint);
    Dict top;
    top["system-entities"] = Value::newArray({Value::newDict(std::move(entity))});
    auto xml = QVPropertyListToXML(Value::newDict(std::move(top)));
    if (!xml) return fail(error, QVImageExitFailure, "cannot describe the attachment");
    std::fwrite(xml->data(), 1, xml->size(), stdout);
    if (std::fflush(stdout) != 0) return fail(error, QVImageExitFailure, "cannot write to standard output");
    return true;
}

} // namespace

int runAttach(const std::vector<std::string>& words, const VerbContext& ctx, QVError* error) {
    ParsedArguments args;
    if (!parseArguments(words, {"-plist", "-stdinpass", "-nomount", "-noverify", "-noautofsck", "-nobrowse"},
                        {"-mountpoint"}, &args, error))
        return exitStatusOf(error);
    const bool nomount = args.has("-nomount");
    const std::string* mountPoint = args.value("-mountpoint");
    if (nomount == (mountPoint != nullptr))
        return refuse(error, QVImageExitUsage, "give either -mountpoint <dir> or -nomount");
    SecureBytes password;
    if (!readPasswordIfGiven(args, true, &password, error)) return exitStatusOf(error);

    ImageBundle image;
    if (!image.open(args.positional, error)) return exitStatusOf(error);
    if (!image.lock(error)) return exitStatusOf(error);
    Attachment a;
    a.image = image.path();
    a.layer = ctx.layer == Layer::Kernel ? "kernel" : "fuse2fs";
    // Attachments whose device process died go first: a volume of this image
    // left dead on the mount point would otherwise refuse the mount.
    std::string base;
    if (!runtimeBase(&base, error)) return exitStatusOf(error);
    sweepStaleAttachments(base);
    if (!nomount) {
        if (!checkMountPoint(*mountPoint, &a.mountPoint, error)) return exitStatusOf(error);
        if (ctx.layer == Layer::Kernel && ::geteuid() != 0)
            return refuse(error, QVImageExitFailure, "the kernel layer mounts through a loop device and needs root");
    }
    SecureBytes key;
    if (!image.unwrapKey(password, &key, error)) return exitStatusOf(error);
    password.clear();

    UniqueFd lock;
    if (!makeAttachmentDir(base, &a.dir, &lock, error)) return exitStatusOf(error);
    a.devEntry = devEntryOf(a.dir);
    DeviceOptions options;
    options.attachmentDir = a.dir;
    options.detached = true;
    const bool started = startDeviceServer(image, key, options, lock.get(), &a.devicePid, error);
    lock.reset();
    if (!started) {
        removeAttachmentDir(a.dir);
        return exitStatusOf(error);
    }

    // From here on a failure takes everything down again.
    auto undo = [&]() {
        unmountAfterFailure(a);
        QVError ignored;
        stopDeviceServer(a.dir, a.devicePid, true, std::chrono::minutes(2), &ignored);
        removeAttachmentDir(a.dir);
        return exitStatusOf(error);
    };
    if (!writeAttachment(a, error)) return undo();
    if (nomount) {
        // The caller learns the disk's path from the property list.
        if (!printEntities(a, error)) return undo();
        return QVImageExitOK;
    }
    // A mounted volume writes, and a repair writes more: neither starts on a
    // disk too full to take it.
    if (!ensureRoomToChange(image, "mount", error)) return undo();
    // A volume that was not detached cleanly can't be mounted unrepaired, so the
    // check runs whatever -noautofsck says.
    if (!checkFileSystem(image, a.devEntry, false, error)) return undo();
    const bool nobrowse = args.has("-nobrowse");
    auto mount = [&] {
        return ctx.layer == Layer::Kernel ? mountWithKernel(&a, nobrowse, error) : mountWithFuse2fs(&a, nobrowse, error);
    };
    if (!mount()) {
        // A superblock can say clean over tables that never reached the disk
        // (a writer that was refused blocks and still unmounted cleanly):
        // once the mount refuses them, a full check repairs them.
        QV_LOG_WARN("mounting " + a.image + " failed (" + (error ? error->description : std::string()) +
                    "); checking its file system in full");
        unmountAfterFailure(a);
        if (!checkFileSystem(image, a.devEntry, true, error) || !mount()) return undo();
    }
    if (!writeAttachment(a, error)) return undo();
    // The device process now ends by itself once the file system lets go of the disk.
    requestDeviceStop(a.devicePid);
    if (args.has("-plist") && !printEntities(a, error)) return exitStatusOf(error);
    return QVImageExitOK;
}

} // namespace qv::image
