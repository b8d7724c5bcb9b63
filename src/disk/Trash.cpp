#include "disk/Trash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QByteArray>
#include <QFile>
#include <QStandardPaths>
#include <QString>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "disk/RenameAt.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {

namespace {

// The home Trash, made when missing: Qt falls back to it when a volume has no
// Trash of its own, and when it can't make it either, Qt moves the item into
// the working directory instead, so it must stand before Qt is asked.
// "" with the reason when it can't.
std::string ensureHomeTrash(QVError* error) {
    const QString dataHome = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (dataHome.isEmpty()) {
        QVSetError(error, QVPOSIXErrorDomain, ENOENT, "There is no data directory to keep the Trash in.");
        return "";
    }
    const std::string trash = QFile::encodeName(dataHome).toStdString() + "/Trash";
    std::error_code ec;
    std::filesystem::create_directories(QFile::encodeName(dataHome).toStdString(), ec);
    for (const std::string& dir : {trash, trash + "/files", trash + "/info"}) {
        if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
            const int err = errno;
            QVSetError(error, QVPOSIXErrorDomain, err,
                       QVFormat("Couldn't make the Trash at '%s': %s", dir.c_str(), std::strerror(err)));
            return "";
        }
        struct stat st;
        if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            QVSetError(error, QVPOSIXErrorDomain, ENOTDIR, QVFormat("The Trash at '%s' is not a folder.", dir.c_str()));
            return "";
        }
    }
    return trash;
}

} // namespace

bool QVIsInATrash(const std::string& path, const std::string& homeTrash) {
    if (path.empty() || path.front() != '/') return false;
    const std::string dir = QVParentPath(path);
    if (QVLastPathComponent(dir) != "files") return false;
    const std::string trash = QVParentPath(dir);
    const std::string uid = std::to_string(::getuid());
    return trash == homeTrash || QVLastPathComponent(trash) == ".Trash-" + uid ||
           (QVLastPathComponent(trash) == uid && QVLastPathComponent(QVParentPath(trash)) == ".Trash");
}

std::string QVTrashedItemFrom(const std::string& originalPath) {
    const QString dataHome = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (dataHome.isEmpty() || originalPath.empty()) return "";
    const std::string trash = QFile::encodeName(dataHome).toStdString() + "/Trash";
    static const std::string suffix = ".trashinfo";
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(trash + "/info", ec)) {
        const std::string note = entry.path().filename().string();
        if (!note.ends_with(suffix)) continue;
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("Path=", 0) != 0) continue;
            const QByteArray path = QByteArray::fromPercentEncoding(QByteArray::fromStdString(line.substr(5)));
            const std::string item = trash + "/files/" + note.substr(0, note.size() - suffix.size());
            if (path.toStdString() == originalPath && std::filesystem::exists(std::filesystem::symlink_status(item)))
                return item;
            break;
        }
    }
    return "";
}

bool QVMoveToTrash(const std::string& path, QVError* error, std::string* strayPath) {
    const QByteArray bytes(path.data(), qsizetype(path.size()));
    const QString name = QFile::decodeName(bytes);
    const std::string homeTrash = ensureHomeTrash(error);
    if (homeTrash.empty()) return false;
    if (QFile::encodeName(name) != bytes) {
        QVSetError(error, QVPOSIXErrorDomain, EILSEQ,
                   "The folder's path can't be handed to the Trash as it is not valid text.");
        return false;
    }
    QFile file(name);
    if (!file.moveToTrash()) {
        const std::string why = file.errorString().toStdString();
        QVSetAppError(error, long(file.error()),
                      why.empty() ? "Unknown error. This shouldn't ever happen, please let us know about it!" : why);
        return false;
    }
    const std::string where = QFile::encodeName(file.fileName()).toStdString();
    if (QVIsInATrash(where, homeTrash)) return true;
    // Somewhere that is no Trash: put it back and call it a failure.
    QV_LOG_ERROR(QVFormat("the Trash put '%s' at '%s'", path.c_str(), where.c_str()));
    if (QVRenameNoReplaceAt(AT_FDCWD, where.c_str(), AT_FDCWD, path.c_str()) == 0) {
        // Its note of where it came from goes with it.
        const std::string info =
            QVParentPath(QVParentPath(where)) + "/info/" + QVLastPathComponent(where) + ".trashinfo";
        ::unlink(info.c_str());
        QVSetAppError(error, QVErrorFailed, "The Trash could not be found.");
        return false;
    }
    if (strayPath) *strayPath = where;
    return true;
}

} // namespace qv
