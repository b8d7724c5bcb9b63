#include "app/FolderIntake.h"

#include <QDir>
#include <QString>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <vector>

#include "vault/UserDefaults.h"
#include "disk/FileSystemVolumes.h"
#include "vault/Locations.h"
#include "disk/StorageLocations.h"
#include "disk/URLHelpers.h"
#include "toolkit/Log.h"
#include "app/FolderList.h"
#include "notify/QVNotificationCenter.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"
#include "toolkit/PathText.h"

namespace qv {

namespace {

constexpr const char* kLibraryQuestionTitle = "Encrypting folder in ~/Library - Are you sure?";
constexpr const char* kLibraryQuestionText =
    "Only encrypt folders in the Library folder if you know what you're doing. If you're encrypting application "
    "data, do not run the application until its data is unlocked. Are you sure you want to do this?";
constexpr const char* kOurDataText =
    "This folder contains Quillvane's data. Encrypting it would prevent Quillvane from working.";
constexpr const char* kNestedText =
    "Quillvane does not support encrypting folders within folders, as it does not provide a significant "
    "improvement on top of the existing encryption, and can lead to problems if the folders are not properly "
    "locked.";

bool refuse(QVError* error, long code, const std::string& text) {
    QVSetAppError(error, code, text);
    return false;
}

// An absolute spelling of the path without "//", "." or a trailing "/"; links
// stay as they are.
std::string cleanPath(const std::string& path) {
    if (path.empty()) return path;
    std::string absolute = path;
    if (absolute.front() != '/') {
        char cwd[PATH_MAX];
        if (::getcwd(cwd, sizeof cwd)) absolute = std::string(cwd) + "/" + absolute;
    }
    return QDir::cleanPath(QString::fromStdString(absolute)).toStdString();
}

std::string realPath(const std::string& path) {
    char buffer[PATH_MAX];
    if (path.empty() || !::realpath(path.c_str(), buffer)) return "";
    return buffer;
}

// The ways one item is spelt: as given, and with every link resolved. A test
// against our own directories must hold whichever way the user reached the item.
std::vector<std::string> spellings(const std::string& path) {
    std::vector<std::string> out;
    const std::string clean = cleanPath(path);
    if (!clean.empty()) out.push_back(clean);
    const std::string real = realPath(clean);
    if (!real.empty() && real != clean) out.push_back(real);
    return out;
}

bool isSameOrInside(const std::string& path, const std::string& dir) {
    if (dir.empty() || path.empty()) return false;
    if (path == dir || dir == "/") return true;
    return path.size() > dir.size() && path.compare(0, dir.size(), dir) == 0 && path[dir.size()] == '/';
}

bool isStrictlyInside(const std::string& path, const std::string& dir) {
    return path != dir && isSameOrInside(path, dir);
}

// Whether some spelling of `a` and some spelling of `b` answer the test.
template <class Test>
bool anySpelling(const std::vector<std::string>& a, const std::string& b, Test test) {
    const std::vector<std::string> bs = spellings(b);
    for (const std::string& x : a)
        for (const std::string& y : bs)
            if (test(x, y)) return true;
    return false;
}

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string homeDirectory() {
    if (const char* home = std::getenv("HOME"); home && *home) return home;
    if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return pw->pw_dir;
    return "/";
}

// The folders of the set on show.
std::vector<QVRecordRef> setFolders() {
    const auto& subdb = FolderList::singleton().subdb();
    return subdb ? subdb->folders() : std::vector<QVRecordRef>{};
}

std::string mountpointOf(const QVRecordRef& folder) { return FolderRef{folder}.mountpoint().toURLPath(); }

// A folder of the set is at this path already.
bool isFolderOfTheSet(const std::vector<std::string>& forms) {
    for (const QVRecordRef& folder : setFolders())
        if (anySpelling(forms, mountpointOf(folder), [](const std::string& a, const std::string& b) { return a == b; }))
            return true;
    return false;
}

// Where images of ours are kept: the storages of the set's folders and the
// default image destination.
std::vector<std::string> imageStores() {
    std::vector<std::string> stores;
    for (const QVRecordRef& folder : setFolders()) {
        const std::string url = StorageRef{FolderRef{folder}.storage().as<QVRecord>()}.url().toURLPath();
        if (!url.empty()) stores.push_back(url);
    }
    if (std::string destination = QVDiskImageDestinationPath(); !destination.empty()) stores.push_back(destination);
    return stores;
}

// A folder that protected folders or our images live in or below would take
// them with it into the image and then into the Trash; one that lies inside a
// protected folder would sit in its mount point (which must stay empty while
// locked) or inside its decrypted volume.
bool nestsWithProtectedFolders(const std::vector<std::string>& forms) {
    for (const QVRecordRef& folder : setFolders()) {
        const std::string mountpoint = mountpointOf(folder);
        if (anySpelling(forms, mountpoint, isStrictlyInside)) return true;
        if (anySpelling(forms, mountpoint, [](const std::string& a, const std::string& b) {
                return isStrictlyInside(b, a);
            }))
            return true;
    }
    return false;
}

bool holdsImageStore(const std::vector<std::string>& forms) {
    for (const std::string& store : imageStores())
        if (anySpelling(forms, store, [](const std::string& a, const std::string& b) { return isSameOrInside(b, a); }))
            return true;
    return false;
}

} // namespace

std::string QVApplicationBundlePath() {
    const std::string exe = realPath("/proc/self/exe");
    if (exe.empty()) return "";
    return QVParentPath(exe);
}

bool QVReadIntakeResourceValues(const std::string& path, QVIntakeResourceValues* values, QVError* error) {
    QVIntakeResourceValues v;
    struct stat st;
    if (path.empty() || ::lstat(path.c_str(), &st) != 0) {
        const int err = path.empty() ? ENOENT : errno;
        QVSetError(error, QVPOSIXErrorDomain, err, std::strerror(err));
        return false;
    }
    v.isSymbolicLink = S_ISLNK(st.st_mode);
    v.isDirectory = S_ISDIR(st.st_mode);
    v.owner = st.st_uid;
    v.group = st.st_gid;
    v.mode = st.st_mode;
    if (v.isDirectory) {
        QVError volumeError;
        v.isVolume = isVolumeAtURL(path, &volumeError);
        if (!volumeError.empty()) {
            if (error) *error = volumeError;
            return false;
        }
    }
    v.isPackage = isSparseBundle(path);
    v.volumePath = volume(path);
    // A directory is of use only when it can be listed and entered.
    v.isReadable = ::access(path.c_str(), v.isDirectory ? (R_OK | X_OK) : R_OK) == 0;
    v.isWritable = ::access(path.c_str(), W_OK) == 0;
    if (values) *values = std::move(v);
    return true;
}

bool isGoodSparseBundleAtURL(const std::string& path, const QVIntakeResourceValues& info, QVError* error) {
    (void)path;
    (void)info;
    (void)error;
    return true;
}

namespace {

bool readValuesOrRefuse(const std::string& path, QVIntakeResourceValues* info, QVError* error) {
    QVError reason;
    if (QVReadIntakeResourceValues(path, info, &reason)) return true;
    return refuse(error, reason.code,
                  QVFormat("Failed to read attributes for folder:\n\n%s\n\nGot error: %s", path.c_str(),
                           reason.description.c_str()));
}

// What a folder to encrypt and a place for images are both refused for, in this
// order: a folder of the set is refused as such before anything else is said of it,
// and bundles of applications are directories too.
bool passesSharedChecks(const std::string& path, const std::vector<std::string>& forms,
                        const QVIntakeResourceValues& info, QVError* error) {
    const std::string name = QVLastPathComponent(path);
    if (isFolderOfTheSet(forms))
        return refuse(error, QVIntakeAlreadyEncrypted, QVFormat("%s is already encrypted.", name.c_str()));
    if (endsWith(path, ".app"))
        return refuse(error, QVErrorRefused,
                      QVFormat("'%s' is an application, please drag a folder onto Quillvane.", name.c_str()));
    if (!info.isReadable || !info.isWritable)
        return refuse(error, QVIntakeNoReadWrite,
                      QVFormat("Quillvane is not able to read and write to this folder:\n\n%s", path.c_str()));
    return true;
}

} // namespace

bool isGoodFolderAtURL(const std::string& givenPath, QVError* error) {
    const std::string path = cleanPath(givenPath);
    const std::vector<std::string> forms = spellings(path);

    // What the item is, all read at once.
    QVIntakeResourceValues info;
    if (!readValuesOrRefuse(path, &info, error)) return false;
    // A folder, and not a link to one: the Trash and the new mount point
    // would act on the link.
    if (!info.isDirectory) return refuse(error, QVErrorRefused, "Please drag a folder onto Quillvane.");
    // Everything below needs the home directory's volume.
    const std::string home = homeDirectory();
    struct statvfs homeVolume;
    if (::statvfs(home.c_str(), &homeVolume) != 0) {
        const int err = errno;
        return refuse(error, err,
                      QVFormat("Couldn't get volume information for home directory. Error:\n\n%s", std::strerror(err)));
    }
    // An image to import has checks of its own.
    if (info.isPackage) {
        if (!isGoodSparseBundleAtURL(path, info, error)) {
            QV_LOG_FAILED("!isGoodSparseBundleAtURL(url, info, &err)");
            return false;
        }
        return true;
    }
    if (!passesSharedChecks(path, forms, info, error)) return false;
    if (info.isVolume) {
        QV_LOG_WARN(QVFormat("can't encrypt volume: %s", path.c_str()));
        return refuse(error, QVIntakeIsVolume,
                      "At this time Quillvane does not encrypt entire volumes, please use Disk Utliity or FileVault "
                      "for that.");
    }
    // Our database, backups and default image store.
    if (anySpelling(forms, ourAppSupURL(), isSameOrInside)) return refuse(error, QVErrorRefused, kOurDataText);
    const auto same = [](const std::string& a, const std::string& b) { return a == b; };
    // ~/.local and ~/.local/share themselves hold far too much of everything.
    if (anySpelling(forms, libraryURL(), same))
        return refuse(error, QVErrorRefused,
                      "Encrypting the Library folder can lead to problems. You can use FileVault to do that safely.");
    if (anySpelling(forms, appSupURL(), same))
        return refuse(error, QVErrorRefused,
                      "Encrypting the Application Support folder can lead to problems. You can use FileVault to do "
                      "that safely.");
    // Application data may be encrypted, but only knowingly.
    if (anySpelling(forms, libraryURL(), isSameOrInside)) {
        // A front end with windows brings itself forward in its yes/no handler.
        QV_LOG_WARN(kLibraryQuestionText);
        const bool yes = QVNotificationCenter::defaultCenter().postYesNo(
            std::string(kLibraryQuestionTitle) + "\n\n" + kLibraryQuestionText, false);
        if (!yes) {
            if (error) *error = QVError{};
            return false;
        }
    }
    // As text: any folder whose path is part of the install path is refused.
    const std::string bundle = QVApplicationBundlePath();
    for (const std::string& form : forms)
        if (!bundle.empty() && bundle.find(form) != std::string::npos)
            return refuse(error, QVErrorRefused,
                          "This folder contains Quillvane. Encrypting it would prevent Quillvane from working.");
    // The home directory: its data directories, and our own, are in it.
    if (anySpelling(forms, home, same))
        return refuse(error, QVErrorRefused,
                      "Quillvane cannot safely encrypt your entire home directory, please use FileVault to do that.");
    // Folders within folders, and folders that would carry ours away.
    for (const std::string& form : forms)
        if (isSameOrInside(form, QVMountsDirectory)) return refuse(error, QVErrorRefused, kNestedText);
    if (nestsWithProtectedFolders(forms)) return refuse(error, QVErrorRefused, kNestedText);
    if (anySpelling(forms, ourAppSupURL(),
                    [](const std::string& a, const std::string& b) { return isSameOrInside(b, a); }) ||
        holdsImageStore(forms))
        return refuse(error, QVErrorRefused, kOurDataText);
    if (QVError reason; !checkResourceIsReachable(path, &reason)) {
        QV_LOG_ERROR(QVFormat("url unreachable: %s: %s", path.c_str(), reason.description.c_str()));
        return refuse(error, reason.code,
                      QVFormat("Folder is not reachable, error:\n\n%s", reason.description.c_str()));
    }
    if (isNetworkDrive(path)) {
        QV_LOG_ERROR(QVFormat("not on a local volume: %s", path.c_str()));
        return refuse(error, QVIntakeNetworkVolume,
                      "At this time Quillvane does not support encrypting folders on network volumes.");
    }
    return true;
}

bool isGoodImageDestination(const std::string& givenPath, const std::string& mountpointPath, QVError* error) {
    const std::string path = cleanPath(givenPath);
    const std::vector<std::string> forms = spellings(path);

    // What the item is, all read at once.
    QVIntakeResourceValues info;
    if (!readValuesOrRefuse(path, &info, error)) return false;
    if (!info.isDirectory) return refuse(error, QVErrorRefused, "Please, select a folder.");
    // An image chosen as the place: nothing more to ask of it here.
    if (info.isPackage) return true;
    // As text, for the folder's own mount point; any other protected folder
    // by path, as its mount point must stay empty and its volume comes and goes.
    bool inMountpoint = false;
    const std::string mountpoint = cleanPath(mountpointPath);
    for (const std::string& form : forms)
        if (!mountpoint.empty() && form.find(mountpoint) != std::string::npos) inMountpoint = true;
    for (const QVRecordRef& folder : setFolders())
        if (anySpelling(forms, mountpointOf(folder), isStrictlyInside)) inMountpoint = true;
    if (inMountpoint) {
        QV_LOG_ERROR("Folder in mounting point ");
        return refuse(error, QVErrorRefused, "Disk image cannot be stored in the mounting point");
    }
    // Images are served from local disks only.
    if (isNetworkDrive(path)) {
        QV_LOG_ERROR("Folder in remote drive ");
        return refuse(error, QVErrorRefused,
                      "At this time Quillvane does not support encrypting folders on network drives.");
    }
    if (!passesSharedChecks(path, forms, info, error)) return false;
    const std::string bundle = QVApplicationBundlePath();
    for (const std::string& form : forms)
        if (!bundle.empty() && bundle.find(form) != std::string::npos)
            return refuse(error, QVErrorRefused, "This folder contains Quillvane.");
    if (QVError reason; !checkResourceIsReachable(path, &reason))
        return refuse(error, reason.code,
                      QVFormat("Folder is not reachable, error:\n\n%s", reason.description.c_str()));
    return true;
}

QVRecordRef QVStorageForNewFolder(QVError* error) {
    const std::string chosen = QVDiskImageDestinationPath();
    if (chosen.empty()) return QVStorageDefault();
    QVError reason;
    if (!checkResourceIsReachable(chosen, &reason)) {
        const std::string text = QVFormat(
            "Default disk image location is not reachable. If you've set your default disk image folder to an "
            "external drive, please plug it in before encrypting any folders.\n\n%s",
            reason.description.c_str());
        QV_LOG_WARN(text);
        QVSetAppError(error, -1, text);
        return nullptr;
    }
    const std::string name = volnameAtURL(chosen).value_or(QVLastPathComponent(volume(chosen)));
    return QVStorageCreate(name, URLValue{chosen});
}

} // namespace qv
