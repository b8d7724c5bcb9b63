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
    // qv show: no desktop application runs for this user.
    ExitNotRunning = 5,
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
// The process's QCoreApplication, made once by the thread of main().
void ensureApplication();

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
int cmdShow(const std::vector<std::string>& args);
int cmdCompact(const std::vector<std::string>& args);
int cmdResize(const std::vector<std::string>& args);
int cmdMove(const std::vector<std::string>& args);
int cmdIndex(const std::vector<std::string>& args);
int cmdInfo(const std::vector<std::string>& args);
int cmdImport(const std::vector<std::string>& args);

class FolderSession;
// Imports the sparse bundle at `image` with `folder` (empty) as its mount
// point into the session's set, its password read twice on the terminal (once
// from a pipe); prints "imported<TAB><folder>". The exit code.
int importSparseBundle(FolderSession& session, const std::string& image, const std::string& folder);
// Where `qv encrypt` mounts a sparse bundle it imports: a folder beside the
// image, named after it without its extension.
std::string defaultImportMountPoint(const std::string& image);
int cmdRestore(const std::vector<std::string>& args);
int cmdForget(const std::vector<std::string>& args);

} // namespace qv::cli
