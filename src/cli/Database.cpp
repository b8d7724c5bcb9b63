#include <cstdio>

#include "app/Startup.h"
#include "cli/Cli.h"

namespace qv::cli {

void complain(const std::string& message) { std::fprintf(stderr, "qv: %s\n", message.c_str()); }

DBMasterRef openDatabase(int* exitCode) {
    QVError error;
    QVLaunchResult launch = QVOpenMasterDatabaseAtLaunch(&error);
    if (!launch.master) {
        complain(std::string(launch.errorTitle) + ": " + error.description);
        *exitCode = error.code == QVErrorRefused ? ExitRefused : ExitFailure;
    }
    return launch.master;
}

} // namespace qv::cli
