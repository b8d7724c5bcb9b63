#pragma once
// The start-up steps that come before any screen: defaults registered, the
// previous version's data moved, the master file opened, its version checked.
#include "toolkit/QVError.h"
#include "vault/DBMaster.h"

namespace qv {

// Titles under which the front ends show the two fatal start-up errors.
inline constexpr const char* QVFailedToCreateDatabaseTitle = "Failed to create database";
inline constexpr const char* QVInvalidDatabaseVersionTitle = "Invalid database version";

struct QVLaunchResult {
    DBMasterRef master;          // null when the program must stop
    bool databaseExisted = false;  // false: the set-up assistant comes first
    // The file on disk needs the upgrade (deniability/MigrationTask.h) before
    // anything else is done with it.
    bool needsUpgrade = false;
    const char* errorTitle = nullptr;
};

// What an interrupted upgrade left is cleaned away here (app/DatabaseUpgrade.h).
// On failure `error` holds the text to show under `errorTitle`: the open
// error's description, or the refusal of a database of a newer version.
QVLaunchResult QVOpenMasterDatabaseAtLaunch(QVError* error);

// Makes a new DBMaster for the master file and says whether there is one
// (after an upgrade that ended badly or was cancelled).
DBMasterRef reloadMasterDB(QVError* error);

} // namespace qv
