#pragma once
// The command-line front end: parsing, and the start-up steps the desktop
// application also takes (defaults, old data, opening the master file).
#include <string>
#include <vector>

#include "vault/DBMaster.h"

namespace qv::cli {

// Exit codes: a documented contract (docs/CLI.md).
enum ExitCode : int {
    ExitOK = 0,
    ExitFailure = 1,
    ExitUsage = 2,
    ExitWrongPassword = 3,
    ExitRefused = 4,
};

// Prints "qv: <message>" on stderr.
void complain(const std::string& message);

// Registers the defaults, moves the previous version's data, and opens the
// master file, refusing one of a newer version. A file that needs the upgrade
// is refused too (naming `qv upgrade`), unless the caller asks with
// `needsUpgrade` and decides itself. `existed`: whether the file was there.
// Null after a complaint.
DBMasterRef openDatabase(int* exitCode, bool* needsUpgrade = nullptr, bool* existed = nullptr);

// The event loop the tasks post to, and the notification centre printing on
// standard error and asking on the terminal; for every command that runs tasks.
void prepareConsoleSession();

class PasswordInput;
// Opens the set the typed password belongs to; null after a complaint, with the
// exit code (usage, wrong password or failure) in *exitCode.
DBSubdbRef openSet(const DBMasterRef& master, PasswordInput& input, int* exitCode);

int cmdSet(const std::vector<std::string>& args);
int cmdFolders(const std::vector<std::string>& args);
int cmdBackup(const std::vector<std::string>& args);
int cmdEncrypt(const std::vector<std::string>& args);
int cmdUnlock(const std::vector<std::string>& args);
int cmdLock(const std::vector<std::string>& args);
int cmdStatus(const std::vector<std::string>& args);
int cmdActions(const std::vector<std::string>& args);
int cmdUpgrade(const std::vector<std::string>& args);
int cmdRestore(const std::vector<std::string>& args);
int cmdForget(const std::vector<std::string>& args);

} // namespace qv::cli
