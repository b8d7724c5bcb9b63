// qv actions: list, add and remove the actions that run when a folder unlocks
// or locks, with the same rules as the application's actions screen.
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "automation/FolderActionsEditor.h"
#include "cli/Cli.h"
#include "cli/FolderSession.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv::cli {

namespace {

const char* kActionsUsage =
    "qv actions <folder> [list]\n"
    "       qv actions <folder> add open <item>|quit <application.desktop>|unlock <folder>|lock <folder>\n"
    "       qv actions <folder> remove unlock|lock <number>";

int usage() {
    complain(std::string("usage: ") + kActionsUsage);
    return ExitUsage;
}

// The lists in list order: "<list>\t<number>\t<word>\t<target>".
void list(const FolderActionsEditor& editor) {
    for (bool lock : {false, true}) {
        size_t n = 0;
        for (const auto& action : *editor.actions(lock)) {
            FolderActionRef a{action.as<QVRecord>()};
            std::printf("%s\t%zu\t%s\t%s\n", lock ? "lock" : "unlock", ++n,
                        FolderActionsEditor::wordForAction(a.action().toInt()).c_str(), a.url().toURLPath().c_str());
        }
    }
}

// A whole number from 1 up; 0 for anything else.
size_t rowNumber(const std::string& text) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return 0;
    return size_t(std::strtoul(text.c_str(), nullptr, 10));
}

} // namespace

int cmdActions(const std::vector<std::string>& args) {
    if (args.empty()) return usage();
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    const bool listing = rest.empty() || (rest.size() == 1 && rest[0] == "list");
    const bool adding = rest.size() == 3 && rest[0] == "add" &&
                        (rest[1] == "open" || rest[1] == "quit" || rest[1] == "unlock" || rest[1] == "lock");
    const bool removing = rest.size() == 3 && rest[0] == "remove" && (rest[1] == "unlock" || rest[1] == "lock");
    if (!listing && !adding && !removing) return usage();

    FolderSession session;
    if (int code = session.open(); code != ExitOK) return code;
    QVRecordRef face = session.faceForPath(args[0]);
    if (!face) {
        complain("'" + FolderSession::absolutePath(args[0]) + "' is not a folder of this Folder Set");
        return ExitRefused;
    }
    FolderActionsEditor editor(FolderFaceRef{face}.folder().as<QVRecord>());
    if (listing) {
        list(editor);
        return ExitOK;
    }

    if (removing) {
        const bool lock = rest[1] == "lock";
        const size_t n = rowNumber(rest[2]);
        if (n == 0 || !editor.deleteAction(n - 1, lock)) {
            complain("the " + rest[1] + " list has no action number " + rest[2]);
            return ExitRefused;
        }
    } else if (rest[1] == "open" || rest[1] == "quit") {
        const std::string target = FolderSession::absolutePath(rest[2]);
        if (!std::filesystem::exists(target)) {
            complain("'" + target + "' does not exist");
            return ExitRefused;
        }
        if (rest[1] == "quit" && std::filesystem::path(target).extension() != ".desktop") {
            complain("an application to quit is named by its desktop entry (a .desktop file)");
            return ExitRefused;
        }
        if (!editor.addOpenActionWithURL(target, rest[1] == "open")) {
            complain("the list has an action for '" + target + "' already");
            return ExitRefused;
        }
    } else {
        const bool lock = rest[1] == "lock";
        QVRecordRef other = session.faceForPath(rest[2]);
        const std::string target = FolderSession::absolutePath(rest[2]);
        if (!other) {
            complain("'" + target + "' is not a folder of this Folder Set");
            return ExitRefused;
        }
        if (other == face) {
            complain("a folder can't " + rest[1] + " itself");
            return ExitRefused;
        }
        const std::string url = FolderRef{FolderFaceRef{other}.folder().as<QVRecord>()}.mountpoint().toURLPath();
        switch (editor.addFolderActionWithURL(url, lock)) {
            case FolderActionsEditor::AddResult::Added: break;
            case FolderActionsEditor::AddResult::Duplicate:
                complain("the list has an action for '" + target + "' already");
                return ExitRefused;
            case FolderActionsEditor::AddResult::WouldCycle:
                complain(FolderActionsEditor::kCycleAlert);
                return ExitRefused;
        }
    }
    // OK on the screen: the set is saved and the cache told.
    editor.done();
    list(editor);
    return ExitOK;
}

} // namespace qv::cli
