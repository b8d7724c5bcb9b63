// Creating a folder's image: measure, check the room, make the image, mount it
// on a temporary point, copy the folder in, record its settings beside it and
// take it down again. A failure at any step leaves nothing behind.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "disk/DiskInfoFile.h"
#include "disk/DiskMaster.h"
#include "disk/DiskMasterSupport.h"
#include "disk/FolderSanity.h"
#include "disk/ProcessRunner.h"
#include "disk/StorageLocations.h"
#include "disk/ToolPaths.h"
#include "toolkit/HumanReadable.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"
#include "toolkit/PathText.h"

namespace qv {

using namespace diskmaster;

namespace {

constexpr uint64_t kSizeFailed = UINT64_MAX;

// Indexing is switched on by the project's indexing helper; without it the
// volume stays as the desktop's indexers find it. Run to its end before the
// volume is taken down, which follows at once.
void turnOnIndexingIfNecessary(const std::string& mount) {
    if (!QVToolExists("qv-index")) {
        QVLogInfo(QVFormat("no qv-index at %s: indexing of '%s' left as it is", QVToolPath("qv-index").c_str(),
                           mount.c_str()));
        return;
    }
    QVError error;
    quickCommand(QVToolPath("qv-index"), {"-i", "on", mount}, std::span<const uint8_t>(), &error);
    if (!error.empty())
        QV_LOG_ERROR(QVFormat("qv-index failed on '%s': %s", mount.c_str(), trimmedMessage(error.description).c_str()));
}

// The temporary mount point is removed only once empty: never recursively, as
// a volume that failed to come down would be emptied with it.
void removeMountDirectory(const std::string& path) {
    if (path.empty()) return;
    if (::rmdir(path.c_str()) != 0 && errno != ENOENT)
        QV_LOG_ERROR(QVFormat("couldn't remove the temporary mount point '%s': %s", path.c_str(), std::strerror(errno)));
}

bool pathExists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

} // namespace

// Its device process may still be letting go of a band after a forced detach,
// so a directory that refills while it is emptied is emptied again.
bool DiskMaster::removeImage(const std::string& imagePath) {
    if (imagePath.empty()) return true;
    std::error_code ec;
    for (int attempt = 0; attempt < 5; ++attempt) {
        ec.clear();
        std::filesystem::remove_all(imagePath, ec);
        if (!ec && !std::filesystem::exists(std::filesystem::symlink_status(imagePath))) return true;
        ::usleep(200000);
    }
    QV_LOG_ERROR(QVFormat("couldn't remove the unfinished disk image '%s': %s", imagePath.c_str(),
                          ec ? ec.message().c_str() : "it came back"));
    return false;
}

// ---------------------------------------------------------------------- the rules

uint64_t DiskMaster::defaultCapacityForFolderSize(uint64_t folderSize) {
    const uint64_t tenfold = folderSize > UINT64_MAX / 10 ? UINT64_MAX : folderSize * 10;
    return tenfold > QVDiskMinimumCapacity ? tenfold : QVDiskMinimumCapacity;
}

uint64_t DiskMaster::spaceShortfall(int64_t available, uint64_t folderSize) {
    const unsigned __int128 needed = (unsigned __int128)folderSize + QVDiskSpaceMargin;
    const unsigned __int128 have = available > 0 ? (unsigned __int128)available : 0;
    if (have >= needed) return 0;
    const unsigned __int128 missing = needed - have;
    return missing > UINT64_MAX ? UINT64_MAX : uint64_t(missing);
}

std::vector<std::string> DiskMaster::createArgumentsForFolder(const QVRecordRef& folderRecord, QVError* error) {
    FolderRef folder{folderRecord};
    DiskInfoRef diskinfo{folder.diskinfo().as<QVRecord>()};
    const std::string encryption = diskinfo.encryption().toString();
    const std::string filesystem = diskinfo.filesystem().toString();
    const std::string image = diskinfo.url().toURLPath();
    const std::string volname = QVLastPathComponent(folder.mountpoint().toURLPath());
    const Value capacity = diskinfo.capacity();
    if (encryption.empty() || filesystem.empty() || image.empty() || volname.empty() || !capacity.isNumber() ||
        capacity.toInt() < 0) {
        QV_LOG_FAILED("!diskinfo.encryption || !diskinfo.filesystem || !diskinfo.url || !diskinfo.capacity || !folder.mountpoint");
        QVSetAppError(error, QVErrorFailed, "Internal Error: the disk image settings are incomplete.");
        return {};
    }
    const unsigned long long mib = static_cast<uint64_t>(capacity.toInt()) >> 20;
    return {"create", "-encryption", encryption, "-stdinpass", "-size", QVFormat("%llum", mib), "-type",
            "SPARSEBUNDLE", "-volname", volname, "-fs", filesystem, "-ov", image};
}

std::optional<std::string> DiskMaster::copyStatusText(uint64_t bytesCompleted, double throughput, uint64_t size) {
    // The low 32 bits are compared on purpose: past 4 GiB the test works on the
    // wrapped value, and the line then says only "seconds".
    if (uint64_t(uint32_t(bytesCompleted)) > size) return std::string("Time left: seconds");
    if (throughput > 0)
        return "Time left: " + timeIntervalToHumanReadableString((double(size) - double(bytesCompleted)) / throughput);
    return std::nullopt;
}

QVCopyCancelBlock DiskMaster::copyCancelBlockForFolderFace(const QVRecordRef& face, uint64_t size) {
    return [face, size](long errorCode, const QVCopyStatus& status) -> bool {
        uint64_t bytes = 0;
        double throughput = 0;
        if (errorCode == 0) {
            bytes = status.bytesCompleted;
            throughput = status.throughput;
        }
        const double fraction = size > 0 ? double(bytes) / double(size) : 0.0;
        auto text = copyStatusText(bytes, throughput, size);
        if (face) {
            presentFolderFace(face, {.percentage = fraction, .status = std::move(text)});
        }
        return face && FolderFaceRef{face}.opCanceled().toBool();
    };
}

// ---------------------------------------------------------------------- creation

bool DiskMaster::createDiskForFolderFace(const QVRecordRef& face, long diskInfoSettings, unsigned options,
                                         const IconFamily* icon, QVError* error,
                                         const QVScryptParams* tokenParameters) {
    const bool updateUI = options & DiskCreateUpdateUI;
    const bool keepMounted = options & DiskCreateKeepMounted;
    const FaceParts parts = partsOf(face);
    if (!parts.folder || !parts.diskinfo) {
        QV_LOG_FAILED("!folder || !folder.diskinfo");
        QVSetAppError(error, QVErrorRefused, "Internal Error: the folder has no disk image record.");
        return false;
    }
    FolderRef folder{parts.folder};
    DiskInfoRef diskinfo{parts.diskinfo};

    const int64_t available = QVStorageAvailableBytes(parts.storage);
    if (available == -1) {
        QVSetAppError(error, QVErrorFailed, "Couldn't figure out free space available.");
        return false;
    }
    uint64_t size = 0;
    if (options & DiskCreateSkipCopy) {
        const Value recorded = folder.folderSize();
        size = recorded.isNumber() && recorded.toInt() > 0 ? uint64_t(recorded.toInt()) : 0;
    } else {
        size = folderSizeOfFolderFace(face, updateUI, error);
        if (size == kSizeFailed) return false;
    }
    if (const uint64_t shortfall = spaceShortfall(available, size)) {
        const std::string storageURL = StorageRef{parts.storage}.url().toURLPath();
        QV_LOG_ERROR(QVFormat("need at least %s freed on: %s", bytesToHumanReadableString(shortfall).c_str(),
                              storageURL.c_str()));
        QVSetAppError(error, QVErrorRefused,
                      QVFormat("Not enough space available. Please free at least %s.",
                               bytesToHumanReadableString(shortfall).c_str()));
        return false;
    }

    const QVCopyCancelBlock cancelBlock = copyCancelBlockForFolderFace(face, size);
    folder.setFolderSize(Value(size));
    if (diskInfoSettings == 0) {
        diskinfo.setEncryption(Value(QVDiskDefaultEncryption));
        diskinfo.setFilesystem(Value(QVDiskDefaultFilesystem));
        diskinfo.setCapacity(Value(defaultCapacityForFolderSize(size)));
    }
    const std::vector<std::string> args = createArgumentsForFolder(parts.folder, error);
    if (args.empty()) return false;
    const std::string imagePath = args.back();

    // What was at the path before belongs to someone: a failed create leaves it
    // as it was, and only what this call made is removed.
    const bool existedBefore = pathExists(imagePath);
    QVError runError;
    std::optional<std::vector<uint8_t>> output;
    {
        // The plain password lives for this one run only.
        ImagePassword password(face, parts.folder);
        if (!password.fill(error)) return false;
        if (updateUI) presentFolderFace(face, {.indeterminate = true, .status = std::string("Creating disk image...")});
        output = runImageTool(args, password.bytes(), &runError, tokenParameters);
    }
    if (!runError.empty()) {
        const std::string why = trimmedMessage(runError.description);
        QV_LOG_ERROR(QVFormat("failed to create '%s': %s %s", imagePath.c_str(), why.c_str(),
                              outputText(output).c_str()));
        QVSetAppError(error, runError.code, "Failed to create disk image, error:\n\n" + why);
        if (!existedBefore) DiskMaster::removeImage(imagePath);
        return false;
    }

    bool result = false;
    bool mounted = false;
    const std::string tempMount = QVStorageTempMountURL(parts.storage);
    if (tempMount.empty()) {
        QVSetAppError(error, QVErrorFailed, "Couldn't create a temporary mount point for the new disk image.");
    } else if (mountDiskForFolderFace(face, true, tempMount, updateUI, error)) {
        mounted = true;
        if (updateUI)
            presentFolderFace(face, {.indeterminate = false, .percentage = 0.0, .status = std::string("Copying data...")});
        bool copied = true;
        if (!(options & DiskCreateSkipCopy)) {
            copied = copyContentsFrom(folder.mountpoint().toURLPath(), tempMount, QVFileOperationSkipPreflight,
                                      cancelBlock, error);
            if (!copied)
                QV_LOG_ERROR(QVFormat("failed copy of %s into diskimage %s", folder.mountpoint().toURLPath().c_str(),
                                      imagePath.c_str()));
        }
        if (copied) {
            if (icon) QV_LOG_WARN("volume icons are not supported yet: the new volume keeps the default icon");
            if (updateUI)
                presentFolderFace(face, {.indeterminate = true, .animate = true, .status = std::string("Enabling indexing...")});
            if (!(options & DiskCreateSkipSpotlight)) turnOnIndexingIfNecessary(tempMount);
            if (auto serializeError = QVDiskInfoSerializeFromFolder(parts.folder)) {
                if (error) *error = *serializeError;
            } else {
                result = true;
                if (error) *error = QVError();
            }
        }
    }

    if (mounted) {
        if (result && keepMounted) {
            folder.setMountpoint(Value::url(tempMount));
        } else {
            // An ordinary detach waits until every band is written; a forced one
            // only when something (a desktop indexer, say) looked in meanwhile.
            QVError unmountError;
            if (!unmountDiskForFolderFace(face, tempMount, false, updateUI, &unmountError)) {
                QV_LOG_WARN(QVFormat("new disk image '%s' busy, detaching it by force: %s", imagePath.c_str(),
                                     unmountError.description.c_str()));
                unmountError = QVError();
                if (!unmountDiskForFolderFace(face, tempMount, true, updateUI, &unmountError))
                    QV_LOG_ERROR(QVFormat("couldn't detach the new disk image '%s': %s", imagePath.c_str(),
                                          unmountError.description.c_str()));
            }
        }
    }
    if (!result) DiskMaster::removeImage(imagePath);
    if (!(result && keepMounted)) removeMountDirectory(tempMount);
    return result;
}

} // namespace qv
