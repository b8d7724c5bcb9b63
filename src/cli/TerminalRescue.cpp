#include "cli/TerminalRescue.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "cli/Cli.h"
#include "cli/PasswordInput.h"
#include "disk/RescueFrontEnd.h"
#include "notify/NotificationConsole.h"
#include "toolkit/PathText.h"
#include "toolkit/WriteAll.h"
#include "vault/QVCrypto.h"

namespace qv::cli {

namespace {

// The place chosen for `proposed`: the typed path, the proposal for an empty
// line, and the proposed name inside a directory that is typed. Nothing when
// the input has ended; then no more is asked.
std::optional<std::string> askForPlace(const std::string& proposed) {
    const std::string prompt =
        "Where should the disk image '" + QVLastPathComponent(proposed) + "' go? [" + proposed + "] ";
    PasswordInput input;
    std::optional<std::string> line = input.readText(prompt.c_str());
    if (!line) {
        complain("no place given for the disk image");
        QVSetSavePanel({});
        return std::nullopt;
    }
    if (line->empty()) return proposed;
    std::string chosen = *line;
    if (chosen.front() != '/') chosen = QVTrimmedPath(std::filesystem::current_path().string() + "/" + chosen);
    struct stat st;
    if (::stat(chosen.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        chosen = QVPathByAppendingComponent(QVTrimmedPath(chosen), QVLastPathComponent(proposed));
    return chosen;
}

// The password goes to the terminal itself, never to standard error (which
// may be a file) and never to the log.
void showSecretOnTerminal(const std::string& title, const std::string& text) {
    const int tty = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (tty < 0) {
        complain(title + " There is no terminal to show the password on.");
        return;
    }
    if (QVAskYesNo(tty, tty, "The clipboard can't take the disk image's password. Show it on this terminal?", false)) {
        std::string shown = "\n" + title + "\n\n" + text + "\n\n";
        if (QVWriteAll(tty, shown) != 0) complain("couldn't write to the terminal");
        QVWipe(shown);
    }
    ::close(tty);
}

} // namespace

void installTerminalRescueHooks() {
    QVSetSavePanel(askForPlace);
    QVSetSecretAlert(showSecretOnTerminal);
    QVSetSelectInFileViewer([](const std::string& path) { complain("see " + path); });
}

} // namespace qv::cli
