#include "vault/Locations.h"

#include <filesystem>

#include <QStandardPaths>
#include <QString>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <sys/stat.h>

#include "toolkit/Log.h"

namespace qv {

namespace {

struct Cache {
    std::mutex mutex;
    std::string desktop, documents, library, appSup, ourAppSup, oldAppSup;
};
Cache& cache() {
    static Cache c;
    return c;
}

std::string homeDir() {
    const char* home = std::getenv("HOME");
    return home && *home ? home : "/";
}

std::string cached(std::string Cache::*field, std::string (*compute)()) {
    Cache& c = cache();
    {
        std::lock_guard<std::mutex> lock(c.mutex);
        if (!(c.*field).empty()) return c.*field;
    }
    std::string value = compute();
    std::lock_guard<std::mutex> lock(c.mutex);
    if ((c.*field).empty()) c.*field = value;
    return c.*field;
}

std::string standardLocation(QStandardPaths::StandardLocation location, const char* fallback) {
    QString path = QStandardPaths::writableLocation(location);
    if (path.isEmpty()) return homeDir() + "/" + fallback;
    return path.toStdString();
}

} // namespace

std::string desktopURL() {
    return cached(&Cache::desktop, [] { return standardLocation(QStandardPaths::DesktopLocation, "Desktop"); });
}

std::string documentsURL() {
    return cached(&Cache::documents,
                  [] { return standardLocation(QStandardPaths::DocumentsLocation, "Documents"); });
}

std::string libraryURL() {
    return cached(&Cache::library, [] { return homeDir() + "/.local"; });
}

std::string appSupURL() {
    return cached(&Cache::appSup,
                  [] { return standardLocation(QStandardPaths::GenericDataLocation, ".local/share"); });
}

std::string ourAppSupURL() {
    return cached(&Cache::ourAppSup, [] {
        // A new account may have no ~/.local/share yet; made private, as the XDG
        // rules ask of data directories that a program creates.
        const std::string base = appSupURL();
        if (::access(base.c_str(), F_OK) != 0) {
            std::error_code ec;
            std::filesystem::create_directories(base, ec);
            if (!ec) ::chmod(base.c_str(), 0700);
        }
        std::string dir = base + "/" + QVBundleIdentifier;
        ::mkdir(dir.c_str(), 0700);  // a failure shows later, where the file is used
        return dir;
    });
}

std::string oldAppSupURL() {
    return cached(&Cache::oldAppSup, [] { return appSupURL() + "/" + QVBundleName; });
}

std::string defaultDiskImageLocationURL() { return ourAppSupURL() + "/Data"; }

std::string fakeImagesNoteURL() { return ourAppSupURL() + "/fdinote"; }

std::string quillvaneURL(long key) {
    switch (key) {
    case QVLocationDatabase: return ourAppSupURL() + "/database3";
    case QVLocationBackups: return ourAppSupURL() + "/Backups";
    case QVLocationOldDatabase: return oldAppSupURL() + "/database3";
    case QVLocationAutolock: return ourAppSupURL() + "/alock";
    case QVLocationOldAutolock: return oldAppSupURL() + "/alock";
    default:
        QV_LOG_ERROR(QVFormat("%s: shouldn't reach this! given: %ld", __func__, key));
        throw std::invalid_argument("Invalid parameter not satisfying: key >= 0 && key <= 4");
    }
}

void QVLocationsForgetCache() {
    Cache& c = cache();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.desktop.clear();
    c.documents.clear();
    c.library.clear();
    c.appSup.clear();
    c.ourAppSup.clear();
    c.oldAppSup.clear();
}

} // namespace qv
