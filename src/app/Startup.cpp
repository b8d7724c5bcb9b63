#include "app/Startup.h"

#include <filesystem>

#include "app/DatabaseUpgrade.h"
#include "app/OldDataMigration.h"
#include "deniability/MigrationTask.h"
#include "disk/StorageLocations.h"
#include "disk/TempLeftovers.h"
#include "toolkit/Log.h"
#include "vault/Locations.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

namespace qv {

DBMasterRef reloadMasterDB(QVError* error) {
    return DBMaster::initWithMasterDBURL(quillvaneURL(QVLocationDatabase), false, error);
}

QVLaunchResult QVOpenMasterDatabaseAtLaunch(QVError* error) {
    QVLaunchResult result;
    registerQuillvaneDefaults();
    moveOldDataIfNeeded();
    std::error_code ec;
    result.databaseExisted = std::filesystem::exists(quillvaneURL(QVLocationDatabase), ec);
    QVError openError;
    DBMasterRef master = reloadMasterDB(&openError);
    if (!master) {
        result.errorTitle = QVFailedToCreateDatabaseTitle;
        if (error) *error = openError;
        return result;
    }
    if (result.databaseExisted && master->version() > QVMDBMaxReadableVersion) {
        const std::string text =
            "The database is saved in a new version that Quillvane cannot read. Please update your copy of "
            "Quillvane.";
        QV_LOG_WARN(text);
        result.errorTitle = QVInvalidDatabaseVersionTitle;
        QVSetAppError(error, QVErrorRefused, text);
        return result;
    }
    result.needsUpgrade = result.databaseExisted && MigrationTask::needsMigration(master);
    QVCleanUpInterruptedUpgrade(master, result.needsUpgrade);
    result.master = master;
    // What dead processes left in the default storage's Temp goes before any task runs.
    if (result.databaseExisted) QVCleanTempLeftovers(StorageRef{QVStorageDefault()}.url().toURLPath() + "/Temp");
    return result;
}

} // namespace qv
