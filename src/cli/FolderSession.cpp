#include "cli/FolderSession.h"

#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>

#include "app/FolderList.h"
#include "app/InterruptedWork.h"
#include "cli/Cli.h"
#include "cli/PasswordInput.h"
#include "notify/NotificationConsole.h"
#include "notify/QVNotificationCenter.h"
#include "tasks/BaseFolderTask.h"
#include "tasks/TaskQueue.h"
#include "vault/DBSubdb.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv::cli {

namespace {

std::atomic<int> interrupts{0};

void onInterrupt(int) { interrupts.fetch_add(1); }

std::string nameOf(const QVRecordRef& face) {
    return std::filesystem::path(FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.mountpoint().toURLPath())
        .filename()
        .string();
}

// Control characters of a folder name or status must not steer the terminal.
std::string printable(std::string s) {
    for (char& c : s)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return s;
}

// Prints a face's status line when it changes: in place on a terminal, one
// line per change of text (and per tenth of progress) otherwise.
class ProgressPrinter {
public:
    ProgressPrinter() : tty_(::isatty(STDERR_FILENO)) {}
    ~ProgressPrinter() { endLine(); }

    void show() {
        for (const auto& face : FolderList::singleton().faces()) {
            if (!hasCurrentOperation(face) && !shown_.count(face.get())) continue;
            FolderFaceRef ff{face};
            std::string line = printable(nameOf(face)) + ": " + printable(ff.statusText().toString());
            const double fraction = ff.progressPercentage().toDouble();
            const bool determinate = !ff.progressIndeterminate().toBool() && hasCurrentOperation(face);
            int tenth = -1;
            if (determinate && std::isfinite(fraction) && fraction > 0 && fraction <= 1) {
                line += " (" + std::to_string(int(fraction * 100)) + "%)";
                tenth = int(fraction * 10);
            }
            Shown& last = shown_[face.get()];
            if (tty_ ? line == last.line : (ff.statusText().toString() == last.text && tenth == last.tenth)) continue;
            last = {line, ff.statusText().toString(), tenth};
            if (tty_) {
                std::fprintf(stderr, "\r\033[K%s", line.c_str());
                open_ = true;
            } else {
                std::fprintf(stderr, "%s\n", line.c_str());
            }
        }
        std::fflush(stderr);
    }
    void endLine() {
        if (open_) std::fputc('\n', stderr);
        open_ = false;
    }

private:
    struct Shown {
        std::string line, text;
        int tenth = -1;
    };
    const bool tty_;
    bool open_ = false;
    std::map<const QVRecord*, Shown> shown_;
};

} // namespace

// The event loop that the tasks' waits for the main thread are answered on;
// made once, by the thread of main().
void ensureApplication() {
    static int argc = 1;
    static char name[] = "qv";
    static char* argv[] = {name, nullptr};
    if (!QCoreApplication::instance()) new QCoreApplication(argc, argv);
}

FolderSession::FolderSession() { prepareConsoleSession(); }

void prepareConsoleSession() {
    ensureApplication();
    auto& centre = QVNotificationCenter::defaultCenter();
    // qv tells the user on its terminal, whichever way the preferences choose.
    auto console = std::make_shared<ConsoleNotificationDelivery>();
    for (int way = 0; way <= 2; ++way) centre.setDelivery(way, console);
    centre.setFallbackDelivery(console);
    centre.setYesNoHandler(QVAskYesNoOnTerminal);
    centre.setUserDefaultsPreferencesProvider();
}

FolderSession::~FolderSession() {
    FolderList::singleton().returnSubDB();
    marks_.clear();
    QVNotificationCenter::defaultCenter().flush(2.0);
}

int FolderSession::open() {
    int code = ExitOK;
    master_ = openDatabase(&code);
    if (!master_) return code;
    PasswordInput input;
    DBSubdbRef subdb = openSet(master_, input, &code);
    if (!subdb) return code;
    FolderList::singleton().loadSubdb(subdb);
    return ExitOK;
}

std::string FolderSession::absolutePath(const std::string& path) {
    std::filesystem::path p = std::filesystem::absolute(path).lexically_normal();
    std::string s = p.string();
    while (s.size() > 1 && s.back() == '/') s.pop_back();
    return s;
}

QVRecordRef FolderSession::faceForPath(const std::string& path) const {
    const std::string wanted = absolutePath(path);
    for (const auto& face : FolderList::singleton().faces()) {
        std::string mine = FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.mountpoint().toURLPath();
        while (mine.size() > 1 && mine.back() == '/') mine.pop_back();
        if (mine == wanted) return face;
    }
    return nullptr;
}

bool FolderSession::claim(const QVRecordRef& folder) {
    FolderRef f{folder};
    auto mark = FolderTaskMark::hold(f.uuid().toString());
    if (!mark) {
        complain("another Quillvane process is working on '" +
                 std::filesystem::path(f.mountpoint().toURLPath()).filename().string() + "'");
        return false;
    }
    marks_.push_back(std::move(mark));
    return true;
}

QVRecordRef FolderSession::claimFace(const std::string& path, int* exitCode) {
    QVRecordRef face = faceForPath(path);
    if (!face) {
        complain("'" + absolutePath(path) + "' is not a folder of this Folder Set");
    } else if (claim(FolderFaceRef{face}.folder().as<QVRecord>())) {
        return face;
    }
    *exitCode = ExitRefused;
    return nullptr;
}

bool FolderSession::runTask(const OperationRef& operation) {
    QVError error;
    if (!operation || !addFolderTask(QVAppOperationQueue(), operation, &error)) {
        complain("couldn't start the task: " + error.description);
        return false;
    }
    waitForTasks();
    return true;
}

const char* FolderSession::stateWord(const QVRecordRef& face) {
    FolderFaceRef ff{face};
    // A dead volume can't be examined, so its folder also shows as missing.
    return QVFolderIsDamaged(face)                  ? "damaged"
           : QVIsErrorStatusColor(ff.statusColor()) ? "missing"
           : ff.locked().toBool()                   ? "locked"
                                                    : "unlocked";
}

bool FolderSession::waitForTasks() {
    struct sigaction action {}, previous {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &previous);
    interrupts = 0;
    bool cancelled = false;
    ProgressPrinter printer;
    QEventLoop loop;
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, [&] {
        if (interrupts.exchange(0) > 0) {
            cancelled = true;
            printer.endLine();
            std::fprintf(stderr, "qv: cancelling...\n");
            for (const auto& face : FolderList::singleton().faces()) cancelCurrentOperation(face);
        }
        printer.show();
        if (QVAppOperationQueue().operationCount() == 0) loop.quit();
    });
    tick.start(100);
    loop.exec();
    tick.stop();
    // What the last tasks posted on their way out.
    QCoreApplication::processEvents();
    printer.show();
    printer.endLine();
    ::sigaction(SIGINT, &previous, nullptr);
    return !cancelled;
}

} // namespace qv::cli
