#include <cstdio>

#include "app/Startup.h"
#include "cli/Cli.h"

namespace qv::cli {

void complain(const std::string& message) { std::fprintf(stderr, "qv: %s\n", message.c_str()); }

DBMasterRef openDatabase(int* exitCode, bool* needsUpgrade, bool* existed) {
    QVError error;
    QVLaunchResult launch = QVOpenMasterDatabaseAtLaunch(&error);
    if (!launch.master) {
        complain(std::string(launch.errorTitle) + ": " + error.description);
        *exitCode = error.code == QVErrorRefused ? ExitRefused : ExitFailure;
        return nullptr;
    }
    if (existed) *existed = launch.databaseExisted;
    if (needsUpgrade) {
        *needsUpgrade = launch.needsUpgrade;
    } else if (launch.needsUpgrade) {
        // Nothing else is done with a database before it is upgraded.
        complain("the database must be upgraded first: run qv upgrade");
        *exitCode = ExitRefused;
        return nullptr;
    }
    return launch.master;
}

} // namespace qv::cli
