#include "image/Helpers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "sys/LoopDevices.h"
#include "sys/MountTable.h"
#include "sys/UniqueFd.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "vault/PropertyList.h"
#include "vault/Value.h"

namespace qv::image {

// --------------------------------------------------------------- programs

ProgramResult runProgram(const std::string& path, const std::vector<std::string>& args, const std::string* input) {
    QVRunOptions options;
    options.cLocale = true;
    if (input) options.input = std::span(reinterpret_cast<const uint8_t*>(input->data()), input->size());
    return QVRunProgram(path, args, options);
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (done()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// --------------------------------------------------------------- runtime directory

namespace {

// An existing directory of ours that nobody else can enter.
bool privateDirectory(const std::string& path, bool create) {
    if (create && ::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid()) return false;
    if ((st.st_mode & 077) != 0 && ::chmod(path.c_str(), 0700) != 0) return false;
    return true;
}

bool usableBase(const std::string& path) {
    struct stat st {};
    return !path.empty() && path[0] == '/' && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
           st.st_uid == ::geteuid() && ::access(path.c_str(), W_OK | X_OK) == 0;
}

} // namespace

bool runtimeBase(std::string* base, QVError* error) {
    std::string root;
    const char* xdg = std::getenv("XDG_RUNTIME_DIR");
    const std::string userRun = "/run/user/" + std::to_string(::geteuid());
    std::string candidate;
    if (xdg && usableBase(xdg)) {
        candidate = std::string(xdg) + "/qv-image";
    } else if (usableBase(userRun)) {
        candidate = userRun + "/qv-image";
    } else {
        candidate = "/tmp/qv-image-" + std::to_string(::geteuid());
    }
    if (!privateDirectory(candidate, true))
        return fail(error, QVImageExitFailure, "no private runtime directory at '" + candidate + "'");
    *base = candidate;
    return true;
}

bool writeAttachment(const Attachment& a, QVError* error) {
    Dict d;
    d["image"] = Value(a.image);
    d["dev-entry"] = Value(a.devEntry);
    d["mount-point"] = Value(a.mountPoint);
    d["layer"] = Value(a.layer);
    d["loop-device"] = Value(a.loopDevice);
    d["device-pid"] = Value(static_cast<long long>(a.devicePid));
    d["fs-pid"] = Value(static_cast<long long>(a.fsPid));
    auto xml = QVPropertyListToXML(Value::newDict(std::move(d)));
    QVError e;
    if (!xml || !QVWriteFileAtomically(a.dir + "/attachment.plist", *xml, &e, 0600))
        return failErrno(error, xml ? int(e.code) : EINVAL, "cannot record the attachment");
    return true;
}

std::optional<Attachment> readAttachment(const std::string& dir) {
    QVError e;
    auto bytes = QVReadFile(dir + "/attachment.plist", &e);
    if (!bytes) return std::nullopt;
    auto value = QVPropertyListFromData(*bytes, nullptr);
    DictRef d = value ? value->toDict() : nullptr;
    if (!d) return std::nullopt;
    Attachment a;
    a.dir = dir;
    a.image = QVDictGet(*d, "image").toString();
    a.devEntry = QVDictGet(*d, "dev-entry").toString();
    a.mountPoint = QVDictGet(*d, "mount-point").toString();
    a.layer = QVDictGet(*d, "layer").toString();
    a.loopDevice = QVDictGet(*d, "loop-device").toString();
    a.devicePid = pid_t(QVDictGet(*d, "device-pid").toInt());
    a.fsPid = pid_t(QVDictGet(*d, "fs-pid").toInt());
    return a;
}

std::vector<std::string> attachmentDirs(const std::string& base) {
    std::vector<std::string> dirs;
    DIR* dir = ::opendir(base.c_str());
    if (!dir) return dirs;
    while (dirent* e = ::readdir(dir))
        if (std::strncmp(e->d_name, "att-", 4) == 0) dirs.push_back(base + "/" + e->d_name);
    ::closedir(dir);
    std::sort(dirs.begin(), dirs.end());
    return dirs;
}

namespace {

void lazyUnmount(const std::string& path, bool fuse) {
    if (::geteuid() == 0) {
        ::umount2(path.c_str(), MNT_DETACH);
        return;
    }
    if (fuse) runProgram(kFusermount3, {"-u", "-z", "-q", path});
}

} // namespace

void removeAttachmentDir(const std::string& dir) {
    const std::string dev = deviceDirOf(dir);
    if (QVMountAt(dev)) lazyUnmount(dev, true);
    ::unlink((dir + "/attachment.plist").c_str());
    ::unlink(lockFileOf(dir).c_str());
    ::unlink(flushLockOf(dir).c_str());
    ::rmdir(dev.c_str());
    ::rmdir(dir.c_str());
}

bool sweepIfDead(const std::string& dir) {
    const UniqueFd lock(::open(lockFileOf(dir).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (!lock) {
        // A directory without its lock is being set up, or was left half-made:
        // only an old one is swept.
        struct stat st {};
        if (::stat(dir.c_str(), &st) != 0 || ::time(nullptr) - st.st_mtime <= 120) return false;
        removeAttachmentDir(dir);
        return true;
    }
    const bool alive = ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0;
    if (alive) return false;
    // The device process died without cleaning up: its volume, if still
    // mounted, can only give I/O errors now.
    if (auto a = readAttachment(dir)) {
        if (!a->mountPoint.empty()) {
            if (auto m = QVMountAt(a->mountPoint)) {
                const bool ours = m->source == a->devEntry || (!a->loopDevice.empty() && m->source == a->loopDevice);
                if (ours) lazyUnmount(a->mountPoint, m->fsType.rfind("fuse", 0) == 0);
            }
        }
        if (!a->loopDevice.empty() && QVLoopBackingFile(a->loopDevice) == a->devEntry && ::geteuid() == 0)
            runProgram(kLosetup, {"-d", a->loopDevice});
    }
    removeAttachmentDir(dir);
    return true;
}

void sweepStaleAttachments(const std::string& base) {
    for (const auto& dir : attachmentDirs(base)) sweepIfDead(dir);
}

} // namespace qv::image
