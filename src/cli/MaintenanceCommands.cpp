// qv compact | resize | move | index | info: the image maintenance of one
// folder, run as the same tasks as in the desktop application.
#include <cstdio>
#include <filesystem>

#include "app/FolderIntake.h"
#include "cli/Cli.h"
#include "cli/FolderSession.h"
#include "cli/Upgrade.h"
#include "disk/FolderState.h"
#include "disk/SizeWalk.h"
#include "tasks/CompactFolderTask.h"
#include "tasks/ImageSizeTask.h"
#include "tasks/ImageToolCommand.h"
#include "tasks/MoveDiskImageTask.h"
#include "tasks/ResizeFolderTask.h"
#include "tasks/StatFolderTask.h"
#include "tasks/ToggleSpotlightTask.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "vault/Schemas.h"

namespace qv::cli {

namespace {

QVRecordRef folderOf(const QVRecordRef& face) { return FolderFaceRef{face}.folder().as<QVRecord>(); }

std::string pathOf(const QVRecordRef& face) { return QVFolderMountpointPath(folderOf(face)); }

int64_t capacityOf(const QVRecordRef& face) {
    const Value capacity = DiskInfoRef{FolderRef{folderOf(face)}.diskinfo().as<QVRecord>()}.capacity();
    return capacity.isNull() ? 0 : capacity.toInt();
}

// The folder the command works on, opened and claimed; null with the exit code.
struct Target {
    FolderSession session;
    QVRecordRef face;
    int code = ExitOK;

    Target(const std::string& path) {
        if ((code = session.open()) != ExitOK) return;
        face = session.claimFace(path, &code);
        if (face && !FolderRef{folderOf(face)}.encrypted().toBool()) {
            complain("'" + pathOf(face) + "' has no finished image (see qv encrypt)");
            face = nullptr;
            code = ExitRefused;
        }
    }
};

// A state that must be reached: exit 1 with a complaint otherwise.
int unlockedAgain(const QVRecordRef& face, bool wasUnlocked, int code) {
    if (wasUnlocked && !QVFolderIsUnlocked(folderOf(face), nullptr)) {
        complain("'" + pathOf(face) + "' is locked now; unlock it with qv unlock");
        return ExitFailure;
    }
    return code;
}

} // namespace

int cmdCompact(const std::vector<std::string>& args) {
    if (args.size() != 1) {
        complain("usage: qv compact <folder>");
        return ExitUsage;
    }
    Target target(args[0]);
    if (!target.face) return target.code;
    const bool wasUnlocked = QVFolderIsUnlocked(folderOf(target.face), nullptr);
    const OperationRef operation = CompactFolderTask::taskWithFolderFace(target.face);
    if (!target.session.runTask(operation)) return ExitFailure;
    const auto task = CompactFolderTask::taskOf(operation);
    int code = ExitOK;
    if (task->imageError || operation->result()) {
        code = ExitFailure;
    } else {
        std::printf("compacted\t%s\t%s\n", task->claimed.c_str(), pathOf(target.face).c_str());
    }
    return unlockedAgain(target.face, wasUnlocked, code);
}

int cmdResize(const std::vector<std::string>& args) {
    const std::optional<uint64_t> wanted = args.size() == 2 ? parseSize(args[1]) : std::nullopt;
    if (!wanted) {
        complain("usage: qv resize <folder> <size> (a size like 20G, 500M or a number of bytes)");
        return ExitUsage;
    }
    Target target(args[0]);
    if (!target.face) return target.code;
    // As the resize sheet does: the image grows by the difference between the
    // size asked for and the recorded capacity.
    const int64_t capacity = capacityOf(target.face);
    if (*wanted <= static_cast<uint64_t>(std::max<int64_t>(capacity, 0))) {
        complain(QVFormat("'%s' holds %lld bytes already; an image only grows", pathOf(target.face).c_str(),
                          static_cast<long long>(capacity)));
        return ExitRefused;
    }
    const bool wasUnlocked = QVFolderIsUnlocked(folderOf(target.face), nullptr);
    const uint64_t size =
        ResizeFolderTask::sizeForIncrease(folderOf(target.face), *wanted - std::max<int64_t>(capacity, 0));
    const OperationRef operation = ResizeFolderTask::taskWithFolderFace(target.face, size);
    if (!target.session.runTask(operation)) return ExitFailure;
    int code = ExitOK;
    if (ResizeFolderTask::taskOf(operation)->imageError || operation->result())
        code = ExitFailure;
    else
        std::printf("resized\t%lld\t%s\n", static_cast<long long>(capacityOf(target.face)),
                    pathOf(target.face).c_str());
    return unlockedAgain(target.face, wasUnlocked, code);
}

int cmdMove(const std::vector<std::string>& args) {
    if (args.size() != 2) {
        complain("usage: qv move <folder> <directory>");
        return ExitUsage;
    }
    Target target(args[0]);
    if (!target.face) return target.code;
    const std::string directory = FolderSession::absolutePath(args[1]);
    QVError error;
    if (!isGoodImageDestination(directory, pathOf(target.face), &error)) {
        complain("'" + directory + "': " + error.description);
        return ExitRefused;
    }
    if (QVFolderIsUnlocked(folderOf(target.face), nullptr)) {
        complain("'" + pathOf(target.face) + "' is unlocked: lock it to move its image");
        return ExitRefused;
    }
    const std::string image = QVImagePathOfFace(target.face);
    const std::string destination = QVPathByAppendingComponent(directory, QVLastPathComponent(image));
    std::error_code ec;
    if (std::filesystem::exists(std::filesystem::symlink_status(destination, ec))) {
        complain("'" + destination + "' exists already");
        return ExitRefused;
    }
    const OperationRef operation = MoveDiskImageTask::taskWithFolderFace(target.face, destination);
    if (!target.session.runTask(operation)) return ExitFailure;
    if (operation->result()) return ExitFailure;
    std::printf("moved\t%s\t%s\n", destination.c_str(), pathOf(target.face).c_str());
    return ExitOK;
}

int cmdIndex(const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 2 || (args.size() == 2 && args[1] != "on" && args[1] != "off")) {
        complain("usage: qv index <folder> [on|off]");
        return ExitUsage;
    }
    Target target(args[0]);
    if (!target.face) return target.code;
    const std::string mountpoint = pathOf(target.face);
    if (!QVFolderIsUnlocked(folderOf(target.face), nullptr)) {
        complain("'" + mountpoint + "': Folder must be unlocked to enable SpotLight indexing.");
        return ExitRefused;
    }
    QVError error;
    bool enabled = ToggleSpotlightTask::spotLightEnabledForMountpoint(mountpoint, &error);
    if (!error.empty()) {
        complain("'" + mountpoint + "': " + error.description);
        return ExitFailure;
    }
    int code = ExitOK;
    if (args.size() == 2 && enabled != (args[1] == "on")) {
        const OperationRef operation = ToggleSpotlightTask::taskWithFolderFace(target.face);
        if (!target.session.runTask(operation)) return ExitFailure;
        enabled = ToggleSpotlightTask::spotLightEnabledForMountpoint(mountpoint, nullptr);
        if (operation->result() || enabled != (args[1] == "on")) code = ExitFailure;
    }
    std::printf("%s\t%s\n", enabled ? "enabled" : "disabled", mountpoint.c_str());
    return code;
}

int cmdInfo(const std::vector<std::string>& args) {
    if (args.size() != 1) {
        complain("usage: qv info <folder>");
        return ExitUsage;
    }
    Target target(args[0]);
    if (!target.face) return target.code;
    // Fresh figures: the capacity from the image, the size from the folder.
    target.session.runTask(ImageSizeTask::taskWithFolderFace(target.face));
    target.session.runTask(StatFolderTask::taskWithFolderFace(target.face, true));

    const std::string image = QVImagePathOfFace(target.face);
    const int64_t blocks = num512BlocksInDir(image);
    const Value used = FolderRef{folderOf(target.face)}.folderSize();
    const bool unlocked = QVFolderIsUnlocked(folderOf(target.face), nullptr);
    std::printf("image\t%s\n", image.c_str());
    std::printf("capacity\t%lld\n", static_cast<long long>(capacityOf(target.face)));
    std::printf("size on disk\t%lld\n", static_cast<long long>(blocks < 0 ? -1 : blocks * 512));
    std::printf("size used\t%lld\n", static_cast<long long>(used.isNull() ? -1 : used.toInt()));
    std::printf("state\t%s\n", FolderSession::stateWord(target.face));
    std::printf("indexing\t%s\n", !unlocked                                               ? "-"
                                  : FolderFaceRef{target.face}.spotlightStatus().toBool() ? "enabled"
                                                                                          : "disabled");
    return ExitOK;
}

} // namespace qv::cli
