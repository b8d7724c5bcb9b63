#include "app/Backup.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <strings.h>
#include <vector>

#include "vault/Locations.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"

namespace fs = std::filesystem;

namespace qv {

std::string pathByAppendingDateFormat(const std::string& path, const std::string& format) {
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char date[128];
    size_t n = std::strftime(date, sizeof date, format.c_str(), &local);
    fs::path p(path);
    std::string dated = p.stem().string() + std::string(date, n) + p.extension().string();
    return (p.parent_path() / dated).string();
}

namespace {

void pruneBackups(const std::string& backupDir, const std::string& prefix) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(backupDir, ec)) {
        std::string name = entry.path().filename().string();
        if (name.rfind(prefix, 0) == 0) names.push_back(name);
    }
    if (names.size() <= QVMaxBackups) return;
    // The date in the name sorts oldest first.
    std::sort(names.begin(), names.end(),
              [](const std::string& a, const std::string& b) { return strcasecmp(a.c_str(), b.c_str()) < 0; });
    for (size_t i = 0; i < names.size() - QVMaxBackups; ++i) fs::remove(fs::path(backupDir) / names[i], ec);
}

} // namespace

bool backupQuillvaneDatabaseWithSuffix(const std::string& suffix) {
    const std::string backupDir = quillvaneURL(QVLocationBackups);
    const std::string dbPath = quillvaneURL(QVLocationDatabase);
    const fs::path dbName = fs::path(dbPath).filename();
    const std::string target =
        backupDir + "/" + fs::path(pathByAppendingDateFormat(dbName.string(), " %Y-%m-%d %H%M%S")).string() + suffix;

    std::error_code ec;
    if (!fs::is_directory(backupDir, ec)) {
        fs::create_directories(backupDir, ec);
        if (ec) {
            QV_LOG_ERROR("Couldn't create backup dir: " + ec.message());
            return false;
        }
    }
    QVError error;
    auto bytes = QVReadFile(dbPath, &error);
    if (!bytes || !QVWriteFileAtomically(target, *bytes, &error)) {
        QV_LOG_ERROR("failed to backup " + dbPath + " to " + target + ": " + error.description);
        return false;
    }
    QVLogInfo("backed up: " + target);
    pruneBackups(backupDir, dbName.stem().string());
    return true;
}

bool backupQuillvaneDatabase() { return backupQuillvaneDatabaseWithSuffix(""); }

} // namespace qv
