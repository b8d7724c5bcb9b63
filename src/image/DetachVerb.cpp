// detach: take a volume (or a disk served without mount) away. A volume in use
// is refused and its first holder named; -force unmounts lazily and lets the
// device process end by itself once the last holder lets go.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>

#include "image/DeviceProcess.h"
#include "image/Helpers.h"
#include "image/Holders.h"
#include "image/ImageTool.h"
#include "image/Options.h"
#include "image/VolumeFlusher.h"
#include "sys/LoopDevices.h"
#include "sys/MountTable.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv::image {

namespace {

// How long a detach waits for the file system and the device process to
// write everything out and end.
constexpr auto kDetachWait = std::chrono::minutes(3);

std::string stripSuffix(const std::string& s, const std::string& suffix) {
    if (s.size() > suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0)
        return s.substr(0, s.size() - suffix.size());
    return {};
}

// The attachment that `target` (a mount point or a disk) belongs to: first
// among the records of our runtime directory, then through the mount table
// (an attachment made with another runtime directory).
std::optional<Attachment> findAttachment(const std::string& target, const std::string& base) {
    for (const auto& dir : attachmentDirs(base)) {
        auto a = readAttachment(dir);
        if (a && (a->devEntry == target || (!a->mountPoint.empty() && a->mountPoint == target))) return a;
    }
    std::string disk = target;
    if (auto m = QVMountAt(target))
        disk = m->source.rfind("/dev/loop", 0) == 0 ? QVLoopBackingFile(m->source) : m->source;
    const std::string dir = stripSuffix(disk, "/dev/disk");
    if (dir.empty()) return std::nullopt;
    auto a = readAttachment(dir);
    if (a && (a->devEntry == target || a->mountPoint == target)) return a;
    return std::nullopt;
}

std::string busyMessage(const std::string& what, const std::optional<Holder>& holder) {
    if (!holder) return what + " is busy";
    return QVFormat("%s is busy: held by %s (pid %d)", what.c_str(), holder->name.c_str(), int(holder->pid));
}

// The target made absolute with every link resolved. The mount point of a
// volume whose server died can't be examined itself, only its parent can.
std::optional<std::string> resolveTarget(const std::string& given) {
    char buffer[PATH_MAX];
    if (::realpath(given.c_str(), buffer)) return std::string(buffer);
    if (errno != ENOTCONN && errno != EIO) return std::nullopt;
    if (!::realpath(QVParentPath(given).c_str(), buffer)) return std::nullopt;
    return QVPathByAppendingComponent(buffer, QVLastPathComponent(given));
}

bool looksBusy(const ProgramResult& r) {
    return r.err.find("busy") != std::string::npos || r.out.find("busy") != std::string::npos;
}

} // namespace

int runDetach(const std::vector<std::string>& words, const VerbContext&, QVError* error) {
    ParsedArguments args;
    if (!parseArguments(words, {"-force"}, {}, &args, error)) return exitStatusOf(error);
    const bool force = args.has("-force");
    const std::optional<std::string> resolved = resolveTarget(args.positional);
    if (!resolved) return refuse(error, QVImageExitFailure, "'" + args.positional + "' is not an attached image");
    const std::string target = *resolved;
    std::string base;
    if (!runtimeBase(&base, error)) return exitStatusOf(error);
    auto found = findAttachment(target, base);
    if (!found) return refuse(error, QVImageExitFailure, "'" + args.positional + "' is not an attached image");
    Attachment a = *found;
    // A volume whose device process died only answers errors: nobody's work can
    // be saved on it, so it goes whoever holds it.
    if (sweepIfDead(a.dir)) return QVImageExitOK;
    const FlushPause pause(a.dir);
    std::set<pid_t> ours{a.devicePid};
    if (a.fsPid > 0) ours.insert(a.fsPid);

    const bool mounted = !a.mountPoint.empty() && QVMountAt(a.mountPoint).has_value();
    if (mounted) {
        if (!force) {
            if (auto holder = findHolder(a.mountPoint, ours))
                return refuse(error, QVImageExitBusy, busyMessage(a.mountPoint, holder));
        }
        ProgramResult r;
        if (a.layer == "kernel" || ::geteuid() == 0) {
            // umount(8) also drops what the mount left in the table of user-space options.
            r = force ? runProgram(kUmount, {"-i", "-l", a.mountPoint}) : runProgram(kUmount, {"-i", a.mountPoint});
        } else {
            r = force ? runProgram(kFusermount3, {"-u", "-z", a.mountPoint}) : runProgram(kFusermount3, {"-u", a.mountPoint});
        }
        if (!r.ok()) {
            if (looksBusy(r))
                return refuse(error, QVImageExitBusy, busyMessage(a.mountPoint, findHolder(a.mountPoint, ours)));
            return refuse(error, QVImageExitFailure, "cannot unmount '" + a.mountPoint + "': " + r.summary());
        }
    } else if (a.mountPoint.empty() && !force) {
        // A disk served without mount: nobody may still have it open.
        if (auto holder = findHolder(a.devEntry, ours))
            return refuse(error, QVImageExitBusy, busyMessage(a.devEntry, holder));
    }

    if (force) {
        // The device process ends once the last user of the disk is gone.
        requestDeviceStop(a.devicePid);
        return QVImageExitOK;
    }
    if (mounted && a.layer == "kernel" && ::geteuid() == 0) {
        // The loop device goes by itself with the unmount; one that stays would
        // keep the disk open for ever.
        if (!waitUntil([&] { return QVLoopDevicesOf(a.devEntry).empty(); }, std::chrono::seconds(5)))
            for (const auto& loop : QVLoopDevicesOf(a.devEntry)) runProgram(kLosetup, {"-d", loop});
    }
    if (!stopDeviceServer(a.dir, a.devicePid, true, kDetachWait, error)) return exitStatusOf(error);
    return QVImageExitOK;
}

} // namespace qv::image
