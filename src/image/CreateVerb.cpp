// create: a new image, built beside its final place and moved there only once
// complete, so that a failure leaves the old image (or nothing) at the path.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "image/Helpers.h"
#include "image/ImageBundle.h"
#include "image/ImageTool.h"
#include "image/Options.h"
#include "image/VerbSupport.h"
#include "sys/UniqueFd.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"

namespace qv::image {

namespace {

constexpr size_t kLabelBytes = 16;

// The ext4 label holds 16 bytes; a name is cut there, never inside a character.
std::string labelFor(const std::string& name) {
    if (name.size() <= kLabelBytes) return name;
    size_t cut = kLabelBytes;
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    return name.substr(0, cut);
}

bool isReplaceable(const std::string& path) {
    DIR* dir = ::opendir(path.c_str());
    if (!dir) return false;
    bool empty = true, image = false;
    while (dirent* e = ::readdir(dir)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        empty = false;
        if (name == "Info.plist" || name == "Info.bckup" || name == "token" || name == "bands") image = true;
    }
    ::closedir(dir);
    return empty || image;
}

void removeTree(const std::string& path) {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
    if (ec) QV_LOG_ERROR("cannot remove '" + path + "': " + ec.message());
}

// Writes `.hidden` (naming lost+found) into the root of the unmounted file system.
bool writeHiddenFile(const std::string& disk, QVError* error) {
    std::string base;
    if (!runtimeBase(&base, error)) return false;
    std::string dir = base + "/create-XXXXXX";
    if (!::mkdtemp(dir.data())) return failErrno(error, errno, "cannot make a scratch directory");
    const std::string content = dir + "/hidden";
    const std::string commands = dir + "/commands";
    QVError e;
    bool ok = QVWriteFileAtomically(content, {'l', 'o', 's', 't', '+', 'f', 'o', 'u', 'n', 'd', '\n'}, &e, 0644);
    const std::string script = QVFormat("write %s .hidden\nsif .hidden uid %u\nsif .hidden gid %u\n"
                                        "sif .hidden mode 0100644\n",
                                        content.c_str(), unsigned(::getuid()), unsigned(::getgid()));
    ok = ok && QVWriteFileAtomically(commands, std::vector<uint8_t>(script.begin(), script.end()), &e, 0600);
    ProgramResult r;
    if (ok) r = runProgram(kDebugfs, {"-w", "-f", commands, disk});
    removeTree(dir);
    if (!ok) return failErrno(error, int(e.code), "cannot prepare .hidden");
    if (!r.ok()) return fail(error, QVImageExitFailure, "cannot write .hidden: " + r.summary());
    ProgramResult check = runProgram(kDebugfs, {"-R", "cat /.hidden", disk});
    if (!check.ok() || check.out != "lost+found\n")
        return fail(error, QVImageExitFailure, "cannot write .hidden: " + (check.ok() ? r.summary() : check.summary()));
    return true;
}

} // namespace

int runCreate(const std::vector<std::string>& words, const VerbContext&, QVError* error) {
    ParsedArguments args;
    if (!parseArguments(words, {"-stdinpass", "-ov"}, {"-encryption", "-size", "-type", "-volname", "-fs"}, &args,
                        error))
        return exitStatusOf(error);

    ImageInfo info;
    const std::string* encryption = args.value("-encryption");
    if (!encryption) return refuse(error, QVImageExitUsage, "-encryption is required (AES-256 or AES-128)");
    if (*encryption == "AES-256")
        info.encryption = Encryption::AES256;
    else if (*encryption == "AES-128")
        info.encryption = Encryption::AES128;
    else
        return refuse(error, QVImageExitUsage, "unknown encryption '" + *encryption + "' (AES-256 or AES-128)");
    if (const std::string* type = args.value("-type"); type && *type != "SPARSEBUNDLE")
        return refuse(error, QVImageExitUsage, "unknown image type '" + *type + "' (SPARSEBUNDLE)");
    bool journal = true;
    if (const std::string* fs = args.value("-fs")) {
        if (*fs == "HFS+J")
            journal = true;
        else if (*fs == "HFS+")
            journal = false;
        else
            return refuse(error, QVImageExitUsage, "unknown file system '" + *fs + "' (HFS+J or HFS+)");
    }
    const std::string* sizeWord = args.value("-size");
    if (!sizeWord) return refuse(error, QVImageExitUsage, "-size is required");
    if (!parseImageSize(*sizeWord, &info.size, error)) return exitStatusOf(error);
    const std::string label = labelFor(args.value("-volname") ? *args.value("-volname") : "untitled");

    SecureBytes password;
    if (!readPasswordIfGiven(args, true, &password, error)) return exitStatusOf(error);

    // Where the image goes.
    std::filesystem::path target = std::filesystem::absolute(args.positional).lexically_normal();
    if (target.filename().empty()) target = target.parent_path();
    const std::string name = target.filename().string();
    if (name.empty() || name == "." || name == "..")
        return refuse(error, QVImageExitUsage, "bad image path '" + args.positional + "'");
    char parentBuf[PATH_MAX];
    if (!::realpath(target.parent_path().c_str(), parentBuf))
        return refuseErrno(error, errno, "cannot use the folder of '" + args.positional + "'");
    const std::string parent = parentBuf;
    const std::string path = parent + "/" + name;

    // What is at the path already: only an image (or an empty folder) is ever replaced.
    UniqueFd oldLock;
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        if (!args.has("-ov")) return refuse(error, QVImageExitFailure, "'" + path + "' already exists");
        if (!S_ISDIR(st.st_mode) || !isReplaceable(path))
            return refuse(error, QVImageExitFailure, "'" + path + "' is not an image; not replacing it");
        oldLock.reset(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
        if (!oldLock) return refuseErrno(error, errno, "cannot open '" + path + "'");
        if (::flock(oldLock.get(), LOCK_EX | LOCK_NB) != 0)
            return refuse(error, QVImageExitAttached, "'" + path + "' is attached; not replacing it");
    } else if (errno != ENOENT) {
        return refuseErrno(error, errno, "cannot reach '" + path + "'");
    }

    struct statvfs vfs {};
    if (::statvfs(parent.c_str(), &vfs) == 0 && uint64_t(vfs.f_bavail) * vfs.f_frsize < kRoomToChange)
        return refuse(error, QVImageExitNoSpace, "not enough space in '" + parent + "' for a new image");

    std::string staging = parent + "/." + name + ".qv-new-XXXXXX";
    if (!::mkdtemp(staging.data())) return refuseErrno(error, errno, "cannot make a folder in '" + parent + "'");
    struct Staging {
        std::string dir;
        bool keep = false;
        ~Staging() {
            if (!keep) removeTree(dir);
        }
    } stagingGuard{staging};

    SecureBytes key;
    Bytes token;
    if (!makeDiskKey(info.encryption, &key, error) || !wrapDiskKey(key, password, &token, error))
        return exitStatusOf(error);
    password.clear();
    if (!writeNewImageFiles(staging, info, token, error)) return exitStatusOf(error);

    {
        ImageBundle image;
        if (!image.open(staging, error) || !image.lock(error)) return exitStatusOf(error);
        TemporaryDevice device;
        if (!device.start(image, key, 0, error)) return exitStatusOf(error);
        // Files map their blocks through indirect blocks, not extents. fuse2fs
        // (the default layer) maps a file's blocks one at a time, and once a file
        // outgrows the four extents its inode holds (from about 500 MiB) it reads,
        // checksums and rewrites the extent block for every 4 KiB it writes or
        // reads: large files then move at less than half the speed. Indirect blocks
        // cost it nothing like that, and the kernel mounts them as well. What is
        // given up: indirect blocks carry no checksum (inodes, directories,
        // bitmaps and the journal still do), files can't hold preallocated
        // unwritten space, and 32-bit block numbers end the disk below 16 TiB.
        std::vector<std::string> mkfs{"-q", "-F", "-b", "4096", "-O", "^extent,^64bit", "-m", "0", "-L", label};
        if (!journal) {
            mkfs.push_back("-O");
            mkfs.push_back("^has_journal");
        }
        // The disk reads as zeros wherever nothing was written, so nothing needs
        // zeroing or discarding, and the bands stay sparse.
        mkfs.push_back("-E");
        mkfs.push_back(QVFormat("root_owner=%u:%u,lazy_itable_init=1,lazy_journal_init=1,assume_storage_prezeroed=1,"
                                "nodiscard",
                                unsigned(::getuid()), unsigned(::getgid())));
        mkfs.push_back(device.disk());
        ProgramResult r = runProgram(kMkfsExt4, mkfs);
        if (!r.ok()) return refuse(error, QVImageExitFailure, "mkfs.ext4 failed: " + r.summary());
        if (!writeHiddenFile(device.disk(), error)) return exitStatusOf(error);
        if (!device.stop(error)) return exitStatusOf(error);
    }
    QVError e;
    if (!QVSyncDirectory(staging, &e)) return refuseErrno(error, int(e.code), "cannot sync the new image");

    // Into place: swapped with the old image in one step, or moved where nothing was.
    if (oldLock) {
        if (::renameat2(AT_FDCWD, staging.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) != 0)
            return refuseErrno(error, errno, "cannot put the new image in place of the old one");
        // The staging name now holds the old image, removed by the guard.
    } else {
        if (::renameat2(AT_FDCWD, staging.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0)
            return refuseErrno(error, errno, "cannot put the new image in place");
        stagingGuard.keep = true;
    }
    if (!QVSyncDirectory(parent, &e)) return refuseErrno(error, int(e.code), "cannot sync '" + parent + "'");
    return QVImageExitOK;
}

} // namespace qv::image
