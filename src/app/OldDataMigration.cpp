#include "app/OldDataMigration.h"

#include <filesystem>

#include "vault/Locations.h"
#include "toolkit/Log.h"

namespace fs = std::filesystem;

namespace qv {

namespace {

// rename(2) when both lie on one file system, otherwise a copy and then the removal of the source.
void moveTree(const fs::path& from, const fs::path& to, std::error_code& ec) {
    fs::rename(from, to, ec);
    if (ec != std::errc::cross_device_link) return;
    ec.clear();
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
    if (!ec) fs::remove_all(from, ec);
}

} // namespace

bool moveOldDataIfNeeded() {
    const fs::path newDb = quillvaneURL(QVLocationDatabase);
    const fs::path oldDb = quillvaneURL(QVLocationOldDatabase);
    std::error_code ec;
    if (!fs::exists(oldDb, ec) || fs::exists(newDb, ec)) return false;

    fs::create_directories(newDb.parent_path(), ec);
    ec.clear();
    fs::copy_file(oldDb, newDb, ec);
    if (ec) QV_LOG_ERROR("Error migrating dbfile: " + ec.message());

    ec.clear();
    fs::copy_file(quillvaneURL(QVLocationOldAutolock), quillvaneURL(QVLocationAutolock), ec);
    if (ec) QV_LOG_ERROR("Error migrating autolock file: " + ec.message());

    ec.clear();
    moveTree(fs::path(oldAppSupURL()) / "Data", fs::path(ourAppSupURL()) / "Data", ec);
    if (ec) QV_LOG_ERROR("Error migrating Data Folder: " + ec.message());

    ec.clear();
    fs::copy(fs::path(oldAppSupURL()) / "Backups", fs::path(ourAppSupURL()) / "Backups",
             fs::copy_options::recursive, ec);
    if (ec) QV_LOG_ERROR("Error migrating Backups Folder: " + ec.message());
    return true;
}

} // namespace qv
