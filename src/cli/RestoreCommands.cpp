// qv restore | forget: a folder taken out of protection, its files back at its
// path, or given up, its image and password handed to the user. Both settle
// first what a dead process left on the folder.
#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <cstdio>

#include "app/FolderList.h"
#include "app/InterruptedWork.h"
#include "cli/Cli.h"
#include "cli/FolderSession.h"
#include "cli/TerminalRescue.h"
#include "disk/FolderState.h"
#include "disk/Trash.h"
#include "disk/URLHelpers.h"
#include "vault/Schemas.h"

namespace qv::cli {

namespace {

QVRecordRef folderOf(const QVRecordRef& face) { return FolderFaceRef{face}.folder().as<QVRecord>(); }

std::string imageOf(const QVRecordRef& face) {
    return DiskInfoRef{FolderRef{folderOf(face)}.diskinfo().as<QVRecord>()}.url().toURLPath();
}

// Turns the event loop for a while: what the tasks posted, delayed panels
// included, and the rescue's questions, are all answered before we report.
void settleEvents(int milliseconds) {
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
    QCoreApplication::processEvents();
}

enum class Prepared { Ready, Done, Failed, Refused };

// What a dead process left: a folder whose encryption never ended (cleared:
// `done` when nothing is left to take out of protection), a dead volume on it
// (taken away), and a restore that died once its image was in the Trash (the
// folder then holds every file: the record goes).
Prepared prepare(FolderSession& session, const QVRecordRef& face, const std::string& path) {
    if (!session.claim(folderOf(face))) return Prepared::Refused;
    QVError error;
    if (QVIsUnfinishedEncryption(face)) {
        const UnfinishedEncryption settled = QVSettleUnfinishedEncryption(face, &error);
        if (settled == UnfinishedEncryption::StartOver) return Prepared::Done;
        if (settled == UnfinishedEncryption::Failed) {
            complain("'" + path + "': " + error.description);
            return Prepared::Failed;
        }
    }
    if (QVFolderIsDamaged(face) && !QVTakeAwayDeadVolume(face, &error)) {
        complain("'" + path + "': " + error.description);
        return Prepared::Failed;
    }
    const std::string image = imageOf(face);
    if (!image.empty() && !checkResourceIsReachable(image, nullptr) && !QVFolderIsUnlocked(folderOf(face), nullptr) &&
        !QVTrashedItemFrom(image).empty()) {
        FolderList::singleton().removeFolderFace(face);
        return Prepared::Done;
    }
    return Prepared::Ready;
}

int usage(const char* text) {
    complain(std::string("usage: ") + text);
    return ExitUsage;
}

} // namespace

int cmdRestore(const std::vector<std::string>& args) {
    if (args.empty()) return usage("qv restore <folder>...");
    FolderSession session;
    if (int code = session.open(); code != ExitOK) return code;
    installTerminalRescueHooks();
    FolderList& list = FolderList::singleton();
    int result = ExitOK;
    std::vector<std::pair<std::string, OperationRef>> queued;
    for (const auto& arg : args) {
        const std::string path = FolderSession::absolutePath(arg);
        QVRecordRef face = session.faceForPath(path);
        if (!face) {
            complain("'" + path + "' is not a folder of this Folder Set");
            result = ExitRefused;
            continue;
        }
        const Prepared prepared = prepare(session, face, path);
        if (prepared == Prepared::Done) std::printf("restored\t%s\n", path.c_str());
        if (prepared != Prepared::Ready) {
            if (prepared != Prepared::Done) result = prepared == Prepared::Refused ? ExitRefused : ExitFailure;
            continue;
        }
        OperationRef operation = list.restoreFolderFace(face);
        if (!operation) {
            complain("couldn't start restoring '" + path + "'");
            result = ExitFailure;
            continue;
        }
        queued.emplace_back(path, operation);
    }
    const bool finished = session.waitForTasks();
    settleEvents(300);
    for (const auto& [path, operation] : queued) {
        if (const OperationResult error = operation->result()) {
            if (finished && error->code != QVErrorCancelled)
                complain("'" + path + "' was not restored: " + error->description);
            if (result == ExitOK) result = ExitFailure;
        } else {
            std::printf("restored\t%s\n", path.c_str());
        }
    }
    return result;
}

int cmdForget(const std::vector<std::string>& args) {
    if (args.size() != 1) return usage("qv forget <folder>");
    FolderSession session;
    if (int code = session.open(); code != ExitOK) return code;
    installTerminalRescueHooks();
    const std::string path = FolderSession::absolutePath(args.front());
    QVRecordRef face = session.faceForPath(path);
    if (!face) {
        complain("'" + path + "' is not a folder of this Folder Set");
        return ExitRefused;
    }
    const Prepared prepared = prepare(session, face, path);
    if (prepared == Prepared::Refused) return ExitRefused;
    if (prepared == Prepared::Failed) return ExitFailure;
    if (prepared == Prepared::Ready) {
        FolderList::singleton().forceRemoveEntry(face);
        settleEvents(100);
    }
    if (session.faceForPath(path)) {
        complain("'" + path + "' was not forgotten");
        return ExitFailure;
    }
    std::printf("forgotten\t%s\n", path.c_str());
    return ExitOK;
}

} // namespace qv::cli
