// qv encrypt | unlock | lock | status: the everyday cycle of a folder, run as
// the same tasks on the same queue as in the desktop application.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "app/FolderIntake.h"
#include "app/FolderList.h"
#include "app/FolderTaskMark.h"
#include "app/InterruptedWork.h"
#include "cli/Cli.h"
#include "cli/FolderSession.h"
#include "disk/FolderState.h"
#include "disk/URLHelpers.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv::cli {

namespace {

bool isEncrypted(const QVRecordRef& face) {
    return FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.encrypted().toBool();
}

QVRecordRef folderOf(const QVRecordRef& face) { return FolderFaceRef{face}.folder().as<QVRecord>(); }

int usage(const char* text) {
    complain(std::string("usage: ") + text);
    return ExitUsage;
}

// qv encrypt of a sparse bundle: imported with a folder beside it, named after
// it, as its mount point; a folder made here goes again when the import fails.
int importBeside(FolderSession& session, const std::string& image) {
    const std::string folder = defaultImportMountPoint(image);
    const bool made = ::mkdir(folder.c_str(), 0755) == 0;
    const int code = importSparseBundle(session, image, folder);
    if (code != ExitOK && made) ::rmdir(folder.c_str());
    return code;
}

} // namespace

int cmdEncrypt(const std::vector<std::string>& args) {
    if (args.empty()) return usage("qv encrypt <folder>...");
    FolderSession session;
    if (int code = session.open(); code != ExitOK) return code;
    FolderList& list = FolderList::singleton();
    int result = ExitOK;
    std::vector<std::string> queued;
    for (const auto& arg : args) {
        const std::string path = FolderSession::absolutePath(arg);
        QVError error;
        // A folder whose encryption a dead process left unfinished is settled
        // first: finished, or cleared to be encrypted afresh.
        if (QVRecordRef face = session.faceForPath(path); face && QVIsUnfinishedEncryption(face)) {
            if (!session.claim(folderOf(face))) {
                result = ExitRefused;
                continue;
            }
            const UnfinishedEncryption settled = QVSettleUnfinishedEncryption(face, &error);
            if (settled == UnfinishedEncryption::Failed) {
                complain("'" + path + "': " + error.description);
                result = ExitFailure;
                continue;
            }
            if (settled == UnfinishedEncryption::Completed) {
                std::printf("encrypted\t%s\n", path.c_str());
                continue;
            }
        }
        if (isSparseBundle(path)) {
            // An image made elsewhere is imported where it lies, not encrypted
            // a second time: mounted on an empty folder beside it.
            if (int code = importBeside(session, path); code != ExitOK) result = code;
            continue;
        }
        if (!isGoodFolderAtURL(path, &error)) {
            if (!error.empty()) complain("'" + path + "': " + error.description);
            result = ExitRefused;
            continue;
        }
        QVRecordRef storage = QVStorageForNewFolder(&error);
        if (!storage) {
            complain(error.description);
            return ExitFailure;
        }
        QVRecordRef folder = QVFolderCreate(storage, URLValue{path});
        if (!session.claim(folder)) {
            result = ExitRefused;
            continue;
        }
        if (!list.encryptFolder(folder)) {
            complain("couldn't start encrypting '" + path + "'");
            result = ExitFailure;
            continue;
        }
        queued.push_back(path);
    }
    const bool finished = session.waitForTasks();
    for (const auto& path : queued) {
        QVRecordRef face = session.faceForPath(path);
        if (!face || !isEncrypted(face)) {
            if (finished) complain("'" + path + "' was not encrypted");
            result = result == ExitOK ? ExitFailure : result;
        } else {
            std::printf("encrypted\t%s\n", path.c_str());
        }
    }
    return result;
}

// Unlocks or locks the named folders; each must be in the set and not worked on
// by another process.
int lockOrUnlock(const std::vector<std::string>& args, bool unlock) {
    std::vector<std::string> paths;
    bool open = false;
    for (const auto& arg : args) {
        if (unlock && arg == "--open")
            open = true;
        else
            paths.push_back(arg);
    }
    if (paths.empty()) return usage(unlock ? "qv unlock <folder>... [--open]" : "qv lock <folder>...");
    FolderSession session;
    if (int code = session.open(); code != ExitOK) return code;
    FolderList& list = FolderList::singleton();
    int result = ExitOK;
    std::vector<QVRecordRef> queued;
    for (const auto& arg : paths) {
        QVRecordRef face = session.faceForPath(arg);
        if (!face) {
            complain("'" + FolderSession::absolutePath(arg) + "' is not a folder of this Folder Set");
            result = ExitRefused;
            continue;
        }
        bool claimed = false;
        if (QVFolderIsDamaged(face)) {
            // The dead volume goes first: locking is then done, and unlocking
            // mounts the image afresh.
            if (!session.claim(folderOf(face))) {
                result = ExitRefused;
                continue;
            }
            claimed = true;
            QVError error;
            if (!QVTakeAwayDeadVolume(face, &error)) {
                complain("'" + FolderSession::absolutePath(arg) + "': " + error.description);
                result = ExitFailure;
                continue;
            }
        }
        const bool unlocked = QVFolderIsUnlocked(folderOf(face), nullptr);
        if (unlocked == unlock) {
            std::printf("%s\t%s\n", unlocked ? "unlocked" : "locked", FolderSession::absolutePath(arg).c_str());
            continue;
        }
        if (!claimed && !session.claim(folderOf(face))) {
            result = ExitRefused;
            continue;
        }
        // The row's switch: it flips `locked` before the list sees it.
        FolderFaceRef{face}.setLocked(Value(unlock ? false : true));
        bool shift = false;
        if (unlock && list.shouldOpenFolderInFinder(face, false) != open) shift = true;
        if (!list.toggleFolderLockOfFolderFace(face, shift)) {
            complain("couldn't start " + std::string(unlock ? "unlocking" : "locking") + " '" + arg + "'");
            result = ExitFailure;
            continue;
        }
        queued.push_back(face);
    }
    session.waitForTasks();
    for (const auto& face : queued) {
        const std::string path = FolderRef{folderOf(face)}.mountpoint().toURLPath();
        const bool unlocked = QVFolderIsUnlocked(folderOf(face), nullptr);
        std::printf("%s\t%s\n", unlocked ? "unlocked" : "locked", path.c_str());
        if (unlocked != unlock && result == ExitOK) result = ExitFailure;
    }
    return result;
}

int cmdUnlock(const std::vector<std::string>& args) { return lockOrUnlock(args, true); }
int cmdLock(const std::vector<std::string>& args) { return lockOrUnlock(args, false); }

int cmdStatus(const std::vector<std::string>& args) {
    if (!args.empty()) return usage("qv status");
    FolderSession session;
    if (int code = session.open(); code != ExitOK) return code;
    for (const auto& face : FolderList::singleton().faces()) {
        FolderFaceRef ff{face};
        FolderRef folder{folderOf(face)};
        const std::string status = ff.statusText().toString();
        const char* state = FolderSession::stateWord(face);
        const char* task = FolderTaskMark::isHeld(folder.uuid().toString()) ? "busy"
                           : !folder.encrypted().toBool()                    ? "unfinished"
                                                                             : "-";
        std::printf("%s\t%s\t%s\t%s\n", state, status.c_str(), task, folder.mountpoint().toURLPath().c_str());
    }
    return ExitOK;
}

} // namespace qv::cli
