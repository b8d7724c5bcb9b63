// Rescue and relocation of a folder's image: when a folder can't be restored,
// the user still gets the two things that matter, the image file and its
// password; and the moves and copies of an image between storages.
//
// Nothing here deletes anything. A folder leaves the list only after its image
// has been moved and its password handed over; the password goes into a plain
// file on purpose, with a name that tells the user to delete it.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "disk/DiskMaster.h"
#include "disk/DesktopOpen.h"
#include "disk/DiskMasterSupport.h"
#include "disk/FolderSanity.h"
#include "vault/Locations.h"
#include "disk/RescueFrontEnd.h"
#include "disk/SizeWalk.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "notify/QVNotificationCenter.h"
#include "vault/DBSubdb.h"
#include "vault/QVCrypto.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

// ---------------------------------------------------------------------- front-end hooks

namespace {

struct Hooks {
    std::mutex mutex;
    QVClipboardWriter clipboard;
    QVSavePanel savePanel;
    QVActivateApplication activate;
    QVClosePopover closePopover;
    QVSelectInFileViewer selectInFileViewer;
    QVSecretAlert secretAlert;
};

Hooks& hooks() {
    static Hooks* h = new Hooks();  // lives as long as the process; hooks may be called at exit
    return *h;
}

template <class F>
void setHook(F Hooks::*member, F value) {
    std::lock_guard lock(hooks().mutex);
    hooks().*member = std::move(value);
}

template <class F>
F hook(F Hooks::*member) {
    std::lock_guard lock(hooks().mutex);
    return hooks().*member;
}

} // namespace

void QVSetClipboardWriter(QVClipboardWriter writer) { setHook(&Hooks::clipboard, std::move(writer)); }
void QVSetSavePanel(QVSavePanel panel) { setHook(&Hooks::savePanel, std::move(panel)); }
void QVSetActivateApplication(QVActivateApplication activate) { setHook(&Hooks::activate, std::move(activate)); }
void QVSetClosePopover(QVClosePopover close) { setHook(&Hooks::closePopover, std::move(close)); }
void QVSetSelectInFileViewer(QVSelectInFileViewer select) {
    setHook(&Hooks::selectInFileViewer, std::move(select));
}
void QVSetSecretAlert(QVSecretAlert alert) { setHook(&Hooks::secretAlert, std::move(alert)); }
QVClipboardWriter QVCurrentClipboardWriter() { return hook(&Hooks::clipboard); }
QVSavePanel QVCurrentSavePanel() { return hook(&Hooks::savePanel); }
QVActivateApplication QVCurrentActivateApplication() { return hook(&Hooks::activate); }
QVClosePopover QVCurrentClosePopover() { return hook(&Hooks::closePopover); }
QVSelectInFileViewer QVCurrentSelectInFileViewer() { return hook(&Hooks::selectInFileViewer); }
QVSecretAlert QVCurrentSecretAlert() { return hook(&Hooks::secretAlert); }

// ---------------------------------------------------------------------- helpers

namespace {

constexpr const char* kMustChooseText =
    "Please choose a location to save the encrypted disk image to. You can attempt to manually restore from it.";

// The name the rescued files carry: the folder's own name.
std::string rescueName(const QVRecordRef& folder) {
    FolderRef f{folder};
    const std::string mountpoint = f ? f.mountpoint().toURLPath() : std::string();
    const std::string name = QVLastPathComponent(mountpoint);
    return name.empty() ? std::string("(null)") : name;
}

void bringToFront() {
    if (auto activate = QVCurrentActivateApplication()) activate();
}

// An alert the user must see and dismiss: sticky and critical, its title on
// the first line.
void showAlert(const std::string& title, const std::string& text) {
    QVNotificationCenter::defaultCenter().postCritical(title + "\n\n" + text, true);
}

// The directory and the last component of a destination path.
std::pair<std::string, std::string> splitDestination(const std::string& destination) {
    return {QVParentPath(destination), QVLastPathComponent(destination)};
}

// The image's extension with its dot (".sparsebundle"), or "" when it has none.
std::string imageExtension(const std::string& imagePath) {
    const std::string name = QVLastPathComponent(imagePath);
    const auto dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return {};
    return name.substr(dot);
}

} // namespace

// ---------------------------------------------------------------------- the password

bool DiskMaster::rescuePassWord(const QVRecordRef& folder, const std::optional<std::string>& location) {
    FolderRef f{folder};
    const std::string name = rescueName(folder);
    const QVRecordRef diskinfo = f ? f.diskinfo().as<QVRecord>() : nullptr;
    const std::string imagePath = DiskInfoRef{diskinfo}.url().toURLPath();

    std::optional<std::string> plain;
    const Value stored = f ? f.password() : Value();
    if (DBSubdbRef subdb = folder ? QVRecordGetSubdb(folder) : nullptr; subdb && stored.isData()) {
        subdb->withPassword([&](std::string& setPassword) {
            plain = QVCrypto::decryptStringWithString(stored.toData(), setPassword);
        });
    }
    if (!plain) {
        QV_LOG_ERROR(QVFormat("couldn't decrypt the password of the image '%s'", imagePath.c_str()));
        QVNotificationCenter::defaultCenter().postCritical(
            QVFormat("Couldn't decrypt folder password!\n\nWe strongly recommend recovering the disk image from "
                     "backups. It was stored here:\n\n%s",
                     imagePath.c_str()),
            true);
        return false;
    }
    std::string& password = *plain;
    QVWipeOnExit<std::string> wipePassword(password);

    // What another program left on the clipboard must not be taken for the password.
    const QVClipboardWriter clipboard = QVCurrentClipboardWriter();
    if (clipboard) clipboard(std::string());

    const bool onDesktop = !location || location->empty();
    const std::string dir = onDesktop ? desktopURL() : QVTrimmedPath(*location);
    if (onDesktop && ::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        QV_LOG_WARN(QVFormat("couldn't make the desktop directory '%s': %s", dir.c_str(), std::strerror(errno)));
    const std::string fileName = name + " - PASSWORD (DELETE ME!).txt";
    const std::string path = QVPathByAppendingComponent(dir, fileName);
    std::string addition;
    {
        Bytes bytes(password.begin(), password.end());
        QVError error;
        if (QVWriteFileAtomically(path, bytes, &error, 0600))
            addition = "\n\nAdditionally, the password was written to a file on the same folder just in case:\n\n" +
                       fileName;
        else
            QV_LOG_ERROR(QVFormat("failed to write '%s': %s", path.c_str(), error.description.c_str()));
        QVWipe(bytes);
    }

    bringToFront();
    if (clipboard && clipboard(password)) {
        showAlert("Password Copied!",
                  "The password to '" + name +
                      "' has been copied to the clipboard. Please paste it into a document IMMEDIATELY in case the "
                      "disk image is recoverable." +
                      addition);
        return true;
    }
    // The clipboard failed: the user must read the password off the alert
    // itself. The notification centre logs what it posts, so the password
    // goes only to a front end's own panel.
    if (const QVSecretAlert secretAlert = QVCurrentSecretAlert()) {
        std::string text = "DO NOT CLICK 'OK' YET!\n\nWrite this down IMMEDIATLY:\n\n" + password + addition;
        secretAlert("Failed to copy password!", text);
        QVWipe(text);
        return true;
    }
    showAlert("Failed to copy password!", "The password to '" + name + "' could not be shown here." + addition);
    if (addition.empty()) QV_LOG_ERROR("the password of '" + name + "' reached the user by no way");
    return !addition.empty();
}

// ---------------------------------------------------------------------- the image

bool DiskMaster::rescueDiskImageForFolderFace(const QVRecordRef& face, bool cancelAllowed) {
    const diskmaster::FaceParts parts = diskmaster::partsOf(face);
    if (!parts.folder || parts.imagePath.empty()) {
        QV_LOG_FAILED("!folder.diskinfo.url");
        return false;
    }
    const std::string name = rescueName(parts.folder);
    const std::string proposed = QVTrimmedPath(desktopURL()) + "/" + name + imageExtension(parts.imagePath);

    for (;;) {
        const QVSavePanel panel = QVCurrentSavePanel();
        const std::optional<std::string> chosen = panel ? panel(proposed) : std::nullopt;
        if (!chosen || chosen->empty()) {
            if (cancelAllowed) return false;
            bringToFront();
            QV_LOG_WARN(kMustChooseText);
            showAlert("Must choose a directory", kMustChooseText);
            // Without a save panel nobody can answer: asking again would never end.
            if (!panel) return false;
            continue;
        }

        const auto [dir, fileName] = splitDestination(*chosen);
        QVError error;
        bool moved = false;
        // A mounted image is still being written to; moving it from under its
        // device process could lose those writes, so it must be locked first.
        if (QVFolderIsUnlocked(parts.folder, nullptr)) {
            QVSetAppError(&error, QVErrorRefused,
                          "The folder '" + name + "' is unlocked. Please lock it before moving its disk image.");
        } else {
            // Like a plain move: never over an existing item, and across file
            // systems the source goes only once the copy is whole.
            moved = moveContentsFrom(parts.imagePath, dir, fileName, QVFileOperationDefaultOptions, nullptr, &error);
        }
        if (!moved) {
            QV_LOG_ERROR(QVFormat("failed to move '%s' => '%s': %s", parts.imagePath.c_str(), chosen->c_str(),
                                  error.description.c_str()));
            bringToFront();
            QV_LOG_WARN(error.description);
            showAlert("Couldn't move disk image", error.description);
            return false;
        }

        // The set keeps the only other copy of the password: the folder stays
        // in it unless the password reached the user.
        if (!rescuePassWord(parts.folder, dir)) return false;
        const std::string rescued = QVPathByAppendingComponent(dir, fileName);
        if (auto select = QVCurrentSelectInFileViewer())
            select(rescued);
        else
            QVRevealInFileManager({rescued});
        FolderRef{parts.folder}.setEncrypted(Value(false));
        if (FolderFacesHost* list = QVFolderFacesHost()) list->removeFolderFace(face);
        return true;
    }
}

namespace {

// The shared body of moving and copying an image with the face's progress.
bool relocateImage(const QVRecordRef& face, const std::string& destination, bool move, QVError* error) {
    const diskmaster::FaceParts parts = diskmaster::partsOf(face);
    presentFolderFace(face, {.indeterminate = true});

    QVError sanity;
    const long code = sanityCheckFolderFace(face, &sanity);
    if (code != QVSanityOK) {
        QV_LOG_ERROR(QVFormat("sanity check failed for '%s': %s", parts.imagePath.c_str(), sanity.description.c_str()));
        QVSetAppError(error, code,
                      QVFormat("Error checking image file for '%s' :\n\n%s", parts.imagePath.c_str(),
                               sanity.description.c_str()));
        return false;
    }

    const int64_t size = fastFolderSizeAtFSRef(parts.imagePath, nullptr);
    const QVCopyCancelBlock cancelBlock =
        DiskMaster::copyCancelBlockForFolderFace(face, size > 0 ? static_cast<uint64_t>(size) : 0);
    presentFolderFace(face, {.indeterminate = false});

    const auto [dir, name] = splitDestination(destination);
    QVError failure;
    const bool done =
        move ? moveContentsFrom(parts.imagePath, dir, name, QVFileOperationSkipPreflight, cancelBlock, &failure)
             : copyContentsFrom(parts.imagePath, dir, name, QVFileOperationSkipPreflight, false, cancelBlock,
                                &failure);
    if (done) return true;

    if (failure.code == QVErrorCancelled) {
        QVSetAppError(error, QVErrorCancelled, "Operation cancelled");
        QV_LOG_ERROR(move ? "user cancelled move operation." : "user cancelled copy operation.");
        return false;
    }
    QV_LOG_ERROR(QVFormat(move ? "failed to move image file: '%s' => '%s': %s"
                               : "failed to copy image file: '%s' => '%s': %s",
                          parts.imagePath.c_str(), destination.c_str(), failure.description.c_str()));
    if (!move || failure.code == QVErrorPartialRestore) {
        QVSetAppError(error, failure.code,
                      QVFormat(move ? "Error moving image file '%s' :\n\n%s" : "Error copying image file '%s' :\n\n%s",
                               parts.imagePath.c_str(), failure.description.c_str()));
    } else if (error) {
        *error = failure;
    }
    return false;
}

} // namespace

bool DiskMaster::moveImageFileForFolderFace(const QVRecordRef& face, const std::string& destination, QVError* error) {
    return relocateImage(face, destination, true, error);
}

bool DiskMaster::copyImageFileForFolderFace(const QVRecordRef& face, const std::string& destination, QVError* error) {
    return relocateImage(face, destination, false, error);
}

bool DiskMaster::checkPasswordDiskImage(const std::string& image, const std::string& password) {
    const std::span<const uint8_t> input(reinterpret_cast<const uint8_t*>(password.data()), password.size());
    // A refusal still returns the helper's output: only the error tells.
    QVError error;
    diskmaster::runImageTool({"imageinfo", image, "-plist", "-stdinpass"}, input, &error);
    return error.empty();
}

} // namespace qv
