#include "tasks/DecryptFolderTask.h"

#include <dirent.h>

#include <cstring>
#include <mutex>
#include <optional>
#include <set>

#include "disk/CopyEngine.h"
#include "disk/DesktopOpen.h"
#include "disk/DiskMaster.h"
#include "disk/FolderSanity.h"
#include "disk/MountpointMode.h"
#include "disk/RescueFrontEnd.h"
#include "disk/StorageLocations.h"
#include "notify/QVNotificationCenter.h"
#include "tasks/TrashWait.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/DBSubdb.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

// Overwrite, leave out what can't be read, no measuring beforehand.
constexpr unsigned kRestoreCopyOptions =
    QVFileOperationOverwrite | QVFileOperationSkipSourcePermissionErrors | QVFileOperationSkipPreflight;
static_assert(kRestoreCopyOptions == 11);

QVError appError(long code, const std::string& text) { return QVError{QVAppErrorDomain(), code, text}; }

std::mutex counterMutex;
DecryptFolderTask::AutounlockCounter& autounlockCounter() {
    static DecryptFolderTask::AutounlockCounter counter;
    return counter;
}

void bringToFront() {
    if (auto activate = QVCurrentActivateApplication()) activate();
}

// A panel the user must dismiss: sticky, its title on the first line.
void showPanel(const std::string& title, const std::string& text) {
    QVNotificationCenter::defaultCenter().postCritical(title + "\n\n" + text, true);
}

// The names in a directory; nullopt with the reason when it can't be listed.
std::optional<std::vector<std::string>> namesIn(const std::string& dir, std::string* why) {
    DIR* d = ::opendir(dir.c_str());
    if (!d) {
        *why = std::strerror(errno);
        return std::nullopt;
    }
    std::vector<std::string> names;
    for (;;) {
        errno = 0;
        const struct dirent* e = ::readdir(d);
        if (!e) break;
        const std::string name = e->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    const int err = errno;
    ::closedir(d);
    if (err != 0) {
        *why = std::strerror(err);
        return std::nullopt;
    }
    return names;
}

// What a copy with `upOneLevel` left in `folder`: its working folders.
std::vector<std::string> workingFoldersIn(const std::string& folder) {
    std::string why;
    std::vector<std::string> found;
    for (const auto& name : namesIn(folder, &why).value_or(std::vector<std::string>{}))
        if (name.rfind(QVCopyWorkingPrefix, 0) == 0) found.push_back(QVPathByAppendingComponent(folder, name));
    return found;
}

} // namespace

void DecryptFolderTask::setAutounlockCounter(AutounlockCounter counter) {
    std::lock_guard lock(counterMutex);
    autounlockCounter() = std::move(counter);
}

std::unique_ptr<QVRescueFolderClaim> DecryptFolderTask::rescueFolderURL(const QVRecordRef& storage) {
    const std::string temp = QVStorageTempURL(storage);
    return temp.empty() ? nullptr : QVRescueFolderClaim::make(temp);
}

DecryptFolderTask::CopiesCleanup DecryptFolderTask::removeRestoredCopies(const std::string& image,
                                                                         const std::string& folder) {
    CopiesCleanup result;
    std::string why;
    const auto inImage = namesIn(image, &why);
    if (!inImage) {
        result.unlisted = "encrypted";
        result.listError = why;
        return result;
    }
    const auto inFolder = namesIn(folder, &why);
    if (!inFolder) {
        result.unlisted = "folder";
        result.listError = why;
        return result;
    }
    const std::set<std::string> names(inImage->begin(), inImage->end());
    for (const auto& name : *inFolder) {
        if (!names.count(name) && name.rfind(QVCopyWorkingPrefix, 0) != 0) continue;
        const std::string path = QVPathByAppendingComponent(folder, name);
        if (const int err = QVRemoveTree(path); err != 0) {
            QV_LOG_ERROR(QVFormat("couldn't delete '%s': %s", path.c_str(), std::strerror(err)));
            result.undeleted.push_back(path);
        }
    }
    return result;
}

OperationResult DecryptFolderTask::go(const QVRecordRef& folderFace) {
    FolderFaceRef face{folderFace};
    const QVRecordRef folder = face.folder().as<QVRecord>();
    FolderRef f{folder};
    const std::string mountpoint = QVTrimmedPath(QVFolderMountpointPath(folder));
    const std::string name = QVLastPathComponent(mountpoint);
    const std::string image = DiskInfoRef{f.diskinfo().as<QVRecord>()}.url().toURLPath();
    auto& centre = QVNotificationCenter::defaultCenter();

    // 1. Where the image is mounted while its contents are copied out.
    std::unique_ptr<QVRescueFolderClaim> rescue = rescueFolderURL(f.storage().as<QVRecord>());
    if (!rescue) {
        const std::string text = "Couldn't create temporary folder.";
        centre.postAlert(text, false);
        return appError(QVErrorFailed, text);
    }
    const std::string rescuePath = rescue->path();

    // 2. The records against the disk.
    std::optional<QVError> error;
    QVError sanityError;
    const long sanity = sanityCheckFolderFace(folderFace, &sanityError);
    if (sanity != QVSanityOK) {
        QV_LOG_ERROR(QVFormat("sanity check failed for '%s': %s", name.c_str(), sanityError.description.c_str()));
        error = sanityError;
    }

    // 3, 4. A busy row; an unlocked folder's volume goes, whoever uses it.
    if (!error) {
        startIndeterminateProgress(folderFace, "Restoring...", true);
        bool locked = true;
        performBlockOnMainThread([&] { locked = face.locked().toBool(); }, true);
        QVError unmountError;
        if (!locked && !DiskMaster::unmountDiskForFolderFace(folderFace, "", true, true, &unmountError)) {
            QV_LOG_ERROR(QVFormat("failed to unmount '%s': %s", name.c_str(), unmountError.description.c_str()));
            error = unmountError;
        }
    }

    // 5. The image on the rescue folder.
    bool mounted = false;
    if (!error) {
        QVError mountError;
        mounted = DiskMaster::mountDiskForFolderFace(folderFace, true, rescuePath, true, &mountError);
        if (!mounted) {
            QV_LOG_ERROR(QVFormat("failed to mount '%s': %s", name.c_str(), mountError.description.c_str()));
            error = mountError;
        }
    }

    // 6. How much there is to copy.
    uint64_t size = 0;
    if (!error) {
        QVError sizeError;
        size = folderSizeOfFolderFace(folderFace, rescuePath, true, &sizeError);
        if (size == QVSizeFailed) {
            QV_LOG_ERROR(QVFormat("failed to calc size of '%s': %s", name.c_str(), sizeError.description.c_str()));
            error = sizeError;
        }
    }

    // 7. The copy into the folder, which takes files again for now.
    if (!error) {
        QVGiveMountpointWriteAccess(folder);
        // Copies that a restore which died left behind are replaced by whole ones.
        if (const CopiesCleanup stale = removeRestoredCopies(rescuePath, mountpoint); !stale.clean()) {
            const std::string why = stale.undeleted.empty() ? stale.listError : stale.undeleted.front();
            error = appError(QVErrorFailed, QVFormat("Couldn't clear what an interrupted restore left in '%s':\n\n%s",
                                                     name.c_str(), why.c_str()));
        }
    }
    if (!error) {
        const QVCopyCancelBlock cancelBlock = DiskMaster::copyCancelBlockForFolderFace(folderFace, size);
        presentFolderFace(folderFace, {.indeterminate = false, .status = "Copying data..."});
        QVError copyError;
        if (!copyContentsFrom(rescuePath, mountpoint, kRestoreCopyOptions, cancelBlock, &copyError)) {
            if (copyError.code != QVErrorCancelled)
                QV_LOG_ERROR(QVFormat("failed restore copy: '%s' => '%s': %s", rescuePath.c_str(), mountpoint.c_str(),
                                      copyError.description.c_str()));
            if (copyError.code == QVErrorPartialRestore) {
                // What could not be lifted stays in the copy's working folder.
                const auto left = workingFoldersIn(mountpoint);
                const std::string where = left.empty()
                                              ? QVPathByAppendingComponent(mountpoint, QVLastPathComponent(rescuePath))
                                              : left.front();
                const std::string text = QVFormat(
                    "Some files couldn't be moved and were left inside of this folder:\n\n%s\n\nThe reason was: %s",
                    where.c_str(), copyError.description.c_str());
                bringToFront();
                QV_LOG_WARN(text);
                afterDelay(0.2, [text] {
                    QVNotificationCenter::defaultCenter().postAlert("Partial Restore\n\n" + text, true);
                });
            } else {
                error = copyError;
            }
        }
    }

    // 8. Past this point a cancel is no longer offered.
    performBlockOnMainThread([&] { face.setCancelable(Value(false)); }, true);

    // 9. The image to the Trash, still mounted.
    if (!error) {
        const QVTrashOutcome outcome = QVTrashOnMainThreadAndWait(image);
        if (!outcome.trashed) {
            QV_LOG_ERROR(QVFormat("failed to trash '%s': %s", image.c_str(), outcome.error.description.c_str()));
            centre.postAlert(QVFormat("Could not trash disk image '%s' for folder '%s'.\n\nPlease move it to the "
                                      "Trash for Quillvane.",
                                      QVLastPathComponent(image).c_str(), name.c_str()),
                             true);
            performBlockOnMainThread([image] {
                if (auto select = QVCurrentSelectInFileViewer())
                    select(image);
                else
                    QVRevealInFileManager({image});
            });
        } else if (!outcome.strayPath.empty()) {
            centre.postAlert(QVFormat("The disk image of '%s' could not be placed in the Trash and is now at:\n\n%s",
                                      name.c_str(), outcome.strayPath.c_str()),
                             true);
        }
        centre.postInfo(QVFormat("Restored '%s'.", name.c_str()), false);
    }

    // 10. The next task on this folder starts uncancelled.
    performBlockOnMainThread([face] { face.setOpCanceled(Value()); });

    // 11. No plain copy stays in a folder that is still protected; the image
    // leaves the rescue folder.
    if (mounted) {
        if (error) {
            const CopiesCleanup cleanup = removeRestoredCopies(rescuePath, mountpoint);
            if (!cleanup.unlisted.empty()) {
                QV_LOG_ERROR(QVFormat("failed cleanup for: %s", mountpoint.c_str()));
                centre.postCritical(
                    QVFormat("Restore failed and Quillvane was unable to delete any partially restored files. Please "
                             "check the folder while it is locked to make sure no files were leaked!\n\nError getting "
                             "%s contents: %s",
                             cleanup.unlisted.c_str(), cleanup.listError.c_str()),
                    true);
            }
            for (const auto& item : cleanup.undeleted)
                centre.postAlert("SECURITY: Failed to delete during cleanup of failed restore:\n\n" + item, true);
            // Locked again: read-only, as before the restore.
            QVTakeMountpointWriteAccess(folder);
        }
        QVError unmountError;
        if (DiskMaster::unmountDiskForFolderFace(folderFace, rescuePath, true, true, &unmountError)) {
            int err = 0;
            if (!rescue->removeFolder(&err))
                QV_LOG_ERROR(QVFormat("Error deleting temporary folder: %s", std::strerror(err)));
        } else {
            const std::string text =
                QVFormat("Failed to unmount disk image '%s' for '%s'.\n\nWe recommend restarting your computer.",
                         QVLastPathComponent(image).c_str(), name.c_str());
            QV_LOG_ERROR(QVFormat("%s: %s", text.c_str(), unmountError.description.c_str()));
            centre.postCritical(text, true);
        }
    } else {
        rescue->removeFolder(nullptr);
    }
    rescue.reset();

    // 12. What went wrong, and the rescue when the image itself is in trouble.
    if (error) {
        if (error->code != QVErrorCancelled) {
            const std::string description = error->description;
            QV_LOG_ERROR(QVFormat("failed to restore '%s' (%s): %s", name.c_str(), image.c_str(), description.c_str()));
            if (sanity != QVSanityOK) {
                bringToFront();
                QV_LOG_WARN(description);
                afterDelay(0.2, [description] { showPanel("Error decrypting disk image", description); });
            } else {
                performBlockOnMainThread([] {
                    if (auto close = QVCurrentClosePopover()) close();
                });
                performBlockOnMainThread([folderFace, description] {
                    bringToFront();
                    QV_LOG_WARN(description);
                    showPanel("Restore failed",
                              "Quillvane couldn't decrypt the folder due to an error.\n\nYou'll now be prompted to "
                              "choose a location to save the encrypted data to AND THE PASSWORD TO THIS DATA WILL BE "
                              "COPIED TO THE CLIPBOARD! Please SAVE THE PASSWORD in case the data is recoverable!\n\n"
                              "The error was: " +
                                  description);
                    DiskMaster::rescueDiskImageForFolderFace(folderFace, false);
                });
            }
        }
        performBlockOnMainThread([folderFace] {
            if (!QVIsErrorStatusColor(FolderFaceRef{folderFace}.statusColor())) QVDisplayFolderSizeInfo(folderFace);
        });
    } else {
        // 13. Restored: the folder leaves the list and its set.
        performBlockOnMainThread(
            [&] {
                f.setEncrypted(Value(false));
                if (FolderFacesHost* list = QVFolderFacesHost()) {
                    list->removeFolderFace(folderFace);
                } else if (DBSubdbRef subdb = QVRecordGetSubdb(folder);
                           subdb && subdb->removeFolderWithMountpoint(mountpoint)) {
                    QVError saveError;
                    if (!subdb->save(&saveError))
                        QV_LOG_ERROR(QVFormat("couldn't save the set without '%s': %s", mountpoint.c_str(),
                                              saveError.description.c_str()));
                }
            },
            true);
    }

    // 14. A folder to unlock at login counts no more, whatever became of it.
    if (f.autounlock().toBool()) {
        performBlockOnMainThread([] {
            AutounlockCounter counter;
            {
                std::lock_guard lock(counterMutex);
                counter = autounlockCounter();
            }
            if (counter) counter(-1);
        });
    }
    return error;
}

} // namespace qv
