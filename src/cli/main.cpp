// qv: Quillvane on the command line. It runs the same core as the desktop
// application; passwords are read from the terminal or standard input, never
// from the arguments.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/LayerWiring.h"
#include "cli/Cli.h"
#include "toolkit/Log.h"

namespace {

const char* kUsage =
    "usage: qv [--verbose] <command> [arguments]\n"
    "\n"
    "Folder Sets (passwords are typed on the terminal, or read one per line from\n"
    "standard input when it is not a terminal; never given as arguments):\n"
    "  qv set create [--fake-space SIZE] [--fake-plan random|small|large] [--yes]\n"
    "                     make a new Folder Set (the password typed twice); the first\n"
    "                     set of a new database also gets the fake sets and images\n"
    "  qv set check       does a password open a Folder Set? (exit status 0 or 3)\n"
    "  qv set passwd      change a Folder Set's password (current, then new)\n"
    "  qv folders         list the folders of the set a password opens\n"
    "  qv backup          copy the master file into the Backups folder\n"
    "  qv upgrade [--fake-space SIZE] [--fake-plan random|small|large] [--yes]\n"
    "                     add the fake sets and images a database must have (SIZE like\n"
    "                     2G, 600M or 0; 0 needs --yes without a terminal)\n"
    "\n"
    "Folders (of the set the password opens):\n"
    "  qv encrypt <folder>...         protect folders: their contents move into images\n"
    "  qv unlock <folder>... [--open] mount each folder's image on its path\n"
    "  qv lock <folder>...            take each folder's image away again\n"
    "  qv status                      every folder: state, size, whether a task runs\n"
    "  qv restore <folder>...         take folders out of protection: their files back\n"
    "                                 at their paths, their images to the Trash\n"
    "  qv forget <folder>             give a folder up: its image moved to a place you\n"
    "                                 choose, its password written beside it\n"
    "  qv actions <folder> [list]     what runs when the folder unlocks or locks\n"
    "  qv actions <folder> add open <item> | quit <app.desktop> | unlock <folder> | lock <folder>\n"
    "  qv actions <folder> remove unlock|lock <number>\n"
    "\n"
    "Images (compact and resize lock the folder for the work and unlock it after):\n"
    "  qv compact <folder>            give the image's unused space back to the disk\n"
    "  qv resize <folder> <size>      grow the image to SIZE (like 20G)\n"
    "  qv move <folder> <directory>   move a locked folder's image into DIRECTORY\n"
    "  qv index <folder> [on|off]     search indexing of an unlocked folder, or its state\n"
    "  qv info <folder>               image path, capacity, size on disk, size used, state, indexing\n"
    "  qv import <image.sparsebundle> <empty folder>\n"
    "                                 protect an existing image where it lies (its password\n"
    "                                 typed twice); qv encrypt of an image does the same\n"
    "                                 with a folder beside it\n"
    "  Ctrl-C cancels a running task or the upgrade; the folder, or the database, is\n"
    "  left as it was.\n"
    "\n"
    "The desktop application:\n"
    "  qv show            bring the running Quillvane forward (exit status 5 when it\n"
    "                     does not run)\n"
    "\n"
    "  --verbose          also print the log on standard error\n"
    "  --help             this text\n"
    "\n"
    "Exit status: 0 success, 1 failure, 2 usage, 3 wrong password, 4 refused, 5 not running.\n";

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    while (!args.empty() && args.front().rfind("--", 0) == 0) {
        if (args.front() == "--help") {
            std::fputs(kUsage, stdout);
            return qv::cli::ExitOK;
        }
        if (args.front() == "--verbose") {
            qv::QVLogSetStderr(true);
        } else {
            qv::cli::complain("unknown option " + args.front());
            return qv::cli::ExitUsage;
        }
        args.erase(args.begin());
    }
    if (args.empty()) {
        std::fputs(kUsage, stderr);
        return qv::cli::ExitUsage;
    }
    const std::string command = args.front();
    args.erase(args.begin());
    if (command == "show") return qv::cli::cmdShow(args);
    if (command == "set" || command == "upgrade") qv::QVConnectLayers();
    if (command == "set") return qv::cli::cmdSet(args);
    if (command == "upgrade") return qv::cli::cmdUpgrade(args);
    if (command == "folders") return qv::cli::cmdFolders(args);
    if (command == "backup") return qv::cli::cmdBackup(args);
    qv::QVConnectLayers();
    if (command == "encrypt") return qv::cli::cmdEncrypt(args);
    if (command == "unlock") return qv::cli::cmdUnlock(args);
    if (command == "lock") return qv::cli::cmdLock(args);
    if (command == "status") return qv::cli::cmdStatus(args);
    if (command == "restore") return qv::cli::cmdRestore(args);
    if (command == "forget") return qv::cli::cmdForget(args);
    if (command == "actions") return qv::cli::cmdActions(args);
    if (command == "compact") return qv::cli::cmdCompact(args);
    if (command == "resize") return qv::cli::cmdResize(args);
    if (command == "move") return qv::cli::cmdMove(args);
    if (command == "index") return qv::cli::cmdIndex(args);
    if (command == "info") return qv::cli::cmdInfo(args);
    if (command == "import") return qv::cli::cmdImport(args);
    if (command == "help") {
        std::fputs(kUsage, stdout);
        return qv::cli::ExitOK;
    }
    qv::cli::complain("unknown command '" + command + "' (see qv --help)");
    return qv::cli::ExitUsage;
}
