#include "deniability/FakeDiskImageTask.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "deniability/FakeImageDates.h"
#include "deniability/FakeImageNote.h"
#include "disk/DiskInfoFile.h"
#include "disk/DiskMaster.h"
#include "disk/RenameAt.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

// Leave the new image mounted, copy nothing into it, leave its indexing alone;
// no progress on a row. Otherwise it is made exactly as a real folder's.
constexpr unsigned kFakeCreateOptions = DiskCreateKeepMounted | DiskCreateSkipCopy | DiskCreateSkipSpotlight;

// Long enough for the file system to have settled what the files left.
constexpr unsigned kSettleSeconds = 2;

QVRecordRef folderOf(const QVRecordRef& face) { return FolderFaceRef{face}.folder().as<QVRecord>(); }

std::string imagePathOf(const QVRecordRef& folder) {
    return DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath();
}

} // namespace

OperationRef FakeDiskImageTask::taskWithFolderFace(const QVRecordRef& folderFace, double size,
                                                   CompletionBlock completion,
                                                   std::optional<QVScryptParams> tokenParameters) {
    auto task = std::make_shared<FakeDiskImageTask>();
    task->folderContentSize = size > 0 ? static_cast<uint64_t>(size) : 0;
    task->completionBlock = completion ? std::move(completion) : [](const std::optional<QVError>&, bool) {};
    task->tokenParameters = tokenParameters;
    return makeOperation(task, folderFace);
}

bool FakeDiskImageTask::cancelled() const {
    const OperationRef operation = op();
    return operation && operation->isCancelled();
}

OperationResult FakeDiskImageTask::go(const QVRecordRef& folderFace) {
    const QVRecordRef folder = folderOf(folderFace);
    FolderRef f{folder};
    DiskInfoRef diskinfo{f.diskinfo().as<QVRecord>()};
    const std::string imagePath = imagePathOf(folder);
    std::optional<QVError> error;
    // Made where a real folder's image is made, in the storage's Temp, and
    // moved to its place at the end like one: the move shows on the bundle.
    const std::string storageURL = StorageRef{f.storage().as<QVRecord>()}.url().toURLPath();
    const std::string tempDir = QVPathByAppendingComponent(storageURL, "Temp");
    const std::string tempPath = QVPathByAppendingComponent(tempDir, QVLastPathComponent(imagePath));
    std::string madePath = tempPath;

    std::error_code ec;
    std::filesystem::create_directories(tempDir, ec);
    if (ec) {
        error = QVError{QVPOSIXErrorDomain, ec.value(), ec.message()};
        QV_LOG_ERROR(QVFormat("%s: failed to create: %s", ec.message().c_str(), storageURL.c_str()));
    } else if (!cancelled()) {
        // Noted before the image exists: a crash at any later point leaves a trace.
        FakeImageNote::addImageToNote(tempPath);
        // Sized like a real folder holding this much: the capacity rule and the
        // room check see the content to come.
        f.setFolderSize(Value(folderContentSize));
        diskinfo.setUrl(Value::url(tempPath));
        QVError createError;
        if (!DiskMaster::createDiskForFolderFace(folderFace, 0, kFakeCreateOptions, nullptr, &createError,
                                                 tokenParameters ? &*tokenParameters : nullptr)) {
            QV_LOG_ERROR("Fake disk image creation failed: " + createError.description);
            error = createError;
        } else {
            const std::string volume = f.mountpoint().toURLPath();
            createRandomFilesInURL(volume, folderContentSize);
            ::sleep(kSettleSeconds);
            // A real folder's diskinfo is written once its contents are in, just
            // before the volume comes down: written again now, the fake one's
            // time stamps (and the bundle's) follow the same order.
            if (auto diskinfoError = QVDiskInfoSerializeFromFolder(folder))
                QV_LOG_WARN("couldn't write a disk image's diskinfo again: " + diskinfoError->description);
            // Nobody else uses a fake volume: an ordinary detach, which returns
            // once every band is written, so that nothing changes the image
            // after it was moved and dated, and a cancelled one can be removed
            // whole. Forced only if refused.
            QVError unmountError;
            bool detached = DiskMaster::unmountDiskForFolderFace(folderFace, "", false, false, &unmountError);
            if (!detached) {
                unmountError = QVError();
                detached = DiskMaster::unmountDiskForFolderFace(folderFace, "", true, false, &unmountError);
            }
            if (detached) ::rmdir(volume.c_str());
            if (!cancelled()) {
                FakeImageNote::addImageToNote(imagePath);
                if (const int err = QVRenameNoReplaceAt(AT_FDCWD, tempPath.c_str(), AT_FDCWD, imagePath.c_str())) {
                    error = QVError{QVPOSIXErrorDomain, err,
                                    QVFormat("Failed to move disk image because: %s", std::strerror(err))};
                    QV_LOG_ERROR("Fake disk image creation failed: " + error->description);
                } else {
                    QVSyncDirectory(storageURL, nullptr);
                    madePath = imagePath;
                    FakeImageNote::removeImageFromNote(tempPath);
                }
            }
        }
        diskinfo.setUrl(Value::url(imagePath));
    }
    if (!error) {
        if (cancelled()) {
            DiskMaster::removeImage(madePath);
            FakeImageNote::removeImageFromNote(madePath);
        } else {
            QVForgeFakeImageDates(madePath);
        }
    }
    // The image stays in the note: only the end of the whole upgrade makes it final.
    const bool wasCancelled = cancelled();
    completionBlock(error, wasCancelled);
    return error;
}

uint64_t FakeDiskImageTask::createRandomFilesInURL(const std::string& volume, uint64_t imageSize) {
    // One buffer for all files: random content for gigabytes would take far
    // longer than writing it, and the volume's encryption hides the repetition.
    const Bytes buffer = QVCrypto::randomDataOfLength(kRandomFileSize, 0, 255);
    uint64_t written = 0, files = 0;
    for (unsigned long number = 1; written < imageSize && !cancelled(); ++number, written += kRandomFileSize) {
        std::ofstream out(volume + "/" + QVFormat("f%lu.dat", number), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(buffer.data()), static_cast<std::streamsize>(buffer.size()));
        out.close();
        if (out) ++files;
    }
    return files;
}

} // namespace qv
