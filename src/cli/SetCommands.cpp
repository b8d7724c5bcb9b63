// qv set create | check | passwd, qv folders, qv backup.
#include <cstdio>

#include "app/Backup.h"
#include "cli/Cli.h"
#include "cli/PasswordInput.h"
#include "cli/Upgrade.h"
#include "deniability/MigrationTask.h"
#include "vault/QVCrypto.h"
#include "vault/QVRecord.h"

namespace qv::cli {

namespace {

bool readExisting(PasswordInput& input, std::string& out, const char* prompt) {
    auto pass = input.read(prompt);
    if (!pass) {
        complain("no password given");
        return false;
    }
    out = std::move(*pass);
    return true;
}

bool readNew(PasswordInput& input, std::string& out) {
    bool mismatch = false;
    auto pass = input.readNew("New password: ", "Repeat the new password: ", &mismatch);
    if (!pass) {
        complain(mismatch ? "the passwords do not match" : "no password given");
        return false;
    }
    out = std::move(*pass);
    if (out.empty()) {
        complain("the password is empty");
        return false;
    }
    return true;
}

// The first set of a new database is followed at once by the upgrade that
// gives it its fake sets and images, as the set-up assistant does.
int setCreate(const DBMasterRef& master, const FakeSpaceOptions& options, bool needsUpgrade) {
    const bool newDatabase = master->subDBCount() == 0;
    if (needsUpgrade && !newDatabase) {
        complain("the database must be upgraded first: run qv upgrade");
        return ExitRefused;
    }
    // Planned (and "no space" confirmed) before anything is written.
    const bool upgrade = newDatabase && MigrationTask::needsMigration(master);
    PDAssistantSetup plan;
    if (upgrade && !planFakeImages(options, &plan)) return ExitRefused;
    PasswordInput input;
    std::string pass;
    QVWipeOnExit wipe(pass);
    if (!readNew(input, pass)) return ExitRefused;
    if (master->subDBCount() > 0 && master->hasSubDbWithPassword(pass)) {
        complain("a Folder Set with this password exists already");
        return ExitRefused;
    }
    DBSubdbRef subdb = DBSubdb::subdbWithFolders({}, pass);
    QVError error;
    if (!master->addSubDB(subdb, true, &error) || !subdb->save(&error)) {
        complain("couldn't create the Folder Set: " + error.description);
        return ExitFailure;
    }
    master->returnSubDB(subdb);
    QVWipe(pass);
    if (upgrade) return runDatabaseUpgrade(master, plan, true);
    return ExitOK;
}

} // namespace

DBSubdbRef openSet(const DBMasterRef& master, PasswordInput& input, int* exitCode) {
    std::string pass;
    QVWipeOnExit wipe(pass);
    if (!readExisting(input, pass, "Password: ")) {
        *exitCode = ExitUsage;
        return nullptr;
    }
    if (master->subDBCount() == 0) {
        complain("there is no Folder Set yet (make one with: qv set create)");
        *exitCode = ExitWrongPassword;
        return nullptr;
    }
    QVError error;
    DBSubdbRef subdb = master->getSubDBWithPassword(pass, &error);
    if (!subdb) {
        if (error.empty()) {
            complain("no Folder Set opens with this password");
            *exitCode = ExitWrongPassword;
        } else {
            complain("Error loading database: " + error.description);
            *exitCode = ExitFailure;
        }
    }
    return subdb;
}

namespace {

int setCheck(const DBMasterRef& master) {
    PasswordInput input;
    int code = ExitOK;
    DBSubdbRef subdb = openSet(master, input, &code);
    if (subdb) master->returnSubDB(subdb);
    return code;
}

int setPasswd(const DBMasterRef& master) {
    PasswordInput input;
    int code = ExitOK;
    DBSubdbRef subdb = openSet(master, input, &code);
    if (!subdb) return code;
    std::string pass;
    QVWipeOnExit wipe(pass);
    if (!readNew(input, pass)) {
        master->returnSubDB(subdb);
        return ExitRefused;
    }
    if (master->hasSubDbWithPassword(pass)) {
        complain("another Folder Set uses this password; choose another one");
        master->returnSubDB(subdb);
        return ExitRefused;
    }
    QVError error;
    bool ok = master->changePasswordOnSubdb(subdb, pass, &error);
    master->returnSubDB(subdb);
    if (!ok) {
        complain("couldn't change the password: " + error.description);
        return ExitFailure;
    }
    return ExitOK;
}

} // namespace

int cmdSet(const std::vector<std::string>& argsIn) {
    std::vector<std::string> args = argsIn;
    FakeSpaceOptions options;
    const bool create = !args.empty() && args[0] == "create";
    if (create && !parseFakeSpaceOptions(args, &options)) return ExitUsage;
    if (args.size() != 1 || (args[0] != "create" && args[0] != "check" && args[0] != "passwd")) {
        complain("usage: qv set create [--fake-space SIZE] [--fake-plan random|small|large] [--yes] | check | passwd");
        return ExitUsage;
    }
    int code = ExitOK;
    bool needsUpgrade = false;
    DBMasterRef master = openDatabase(&code, create ? &needsUpgrade : nullptr);
    if (!master) return code;
    if (create) return setCreate(master, options, needsUpgrade);
    if (args[0] == "check") return setCheck(master);
    return setPasswd(master);
}

int cmdFolders(const std::vector<std::string>& args) {
    if (!args.empty()) {
        complain("usage: qv folders");
        return ExitUsage;
    }
    int code = ExitOK;
    DBMasterRef master = openDatabase(&code);
    if (!master) return code;
    PasswordInput input;
    DBSubdbRef subdb = openSet(master, input, &code);
    if (!subdb) return code;
    for (const QVRecordRef& folder : subdb->folders())
        std::printf("%s\n", folder->valueForKey("mountpoint").toURLPath().c_str());
    master->returnSubDB(subdb);
    return ExitOK;
}

int cmdBackup(const std::vector<std::string>& args) {
    if (!args.empty()) {
        complain("usage: qv backup");
        return ExitUsage;
    }
    int code = ExitOK;
    if (!openDatabase(&code)) return code;
    if (!backupQuillvaneDatabase()) {
        complain("the backup failed (see the system log)");
        return ExitFailure;
    }
    return ExitOK;
}

} // namespace qv::cli
