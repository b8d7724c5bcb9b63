// qv upgrade, and the upgrade after the first set of a new database.
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdio>

#include "app/DatabaseUpgrade.h"
#include "cli/Cli.h"
#include "cli/Upgrade.h"
#include "deniability/MigrationTask.h"
#include "deniability/PDAssistant.h"
#include "deniability/PDAssistantSetup.h"
#include "notify/NotificationConsole.h"
#include "notify/QVNotificationCenter.h"

namespace qv::cli {

namespace {

std::atomic<int> interrupts{0};
void onInterrupt(int) { interrupts.fetch_add(1); }

// The assistant's page on a terminal: the two labels and a bar, in place on a
// terminal, a line per change of label (and per tenth of progress) otherwise.
class TerminalAssistantView : public PDAssistantView {
public:
    TerminalAssistantView() : tty_(::isatty(STDERR_FILENO)) {}
    ~TerminalAssistantView() override { endLine(); }

    void setLabels(const std::string& title, const std::string& detail) override {
        if (title == title_) return;
        title_ = title;
        detail_ = detail;
        draw(true);
    }
    void showProgress(double percent, bool determinate) override {
        percent_ = determinate ? percent : 0;
        draw(false);
    }
    void setCancelEnabled(bool) override {}
    void setNextEnabled(bool) override {}
    void setPreviousEnabled(bool) override {}
    void showSheet(const std::string& title, const std::string& text) override {
        endLine();
        complain(title + ": " + text);
    }
    void showFatalErrorAndExit(const std::string& text) override {
        endLine();
        complain(text);
        fatal = true;
    }
    void goBack() override {}
    void migrationDidEnd(const std::optional<QVError>& e, bool c) override {
        ended = true;
        error = e;
        cancelled = c;
        endLine();
    }
    void endLine() {
        if (open_) std::fputc('\n', stderr);
        open_ = false;
        std::fflush(stderr);
    }

    bool ended = false, cancelled = false, fatal = false;
    std::optional<QVError> error;

private:
    void draw(bool newLabel) {
        if (title_.empty()) return;
        const int tenth = int(percent_ / 10);
        if (tty_) {
            const int filled = int(std::lround(percent_ / 5));
            std::fprintf(stderr, "\r\033[K[%s%s] %3d%% %s", std::string(size_t(filled), '#').c_str(),
                         std::string(size_t(20 - filled), ' ').c_str(), int(percent_), title_.c_str());
            open_ = true;
        } else if (newLabel || tenth != tenth_) {
            std::fprintf(stderr, "%3d%% %s\n", int(percent_), title_.c_str());
        }
        tenth_ = tenth;
        std::fflush(stderr);
    }

    const bool tty_;
    bool open_ = false;
    std::string title_, detail_;
    double percent_ = 0;
    int tenth_ = -1;
};

const char* kPlans[] = {"random", "small", "large"};

} // namespace

std::optional<uint64_t> parseSize(const std::string& text) {
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0]))) return std::nullopt;
    size_t used = 0;
    unsigned long long n = 0;
    try {
        n = std::stoull(text, &used);
    } catch (...) {
        return std::nullopt;
    }
    int shift = 0;
    const std::string unit = text.substr(used);
    if (unit.empty())
        shift = 0;
    else if (unit == "K" || unit == "k")
        shift = 10;
    else if (unit == "M" || unit == "m")
        shift = 20;
    else if (unit == "G" || unit == "g")
        shift = 30;
    else if (unit == "T" || unit == "t")
        shift = 40;
    else
        return std::nullopt;
    if (shift && n > (UINT64_MAX >> shift)) return std::nullopt;
    return uint64_t(n) << shift;
}

bool parseFakeSpaceOptions(std::vector<std::string>& args, FakeSpaceOptions* options) {
    std::vector<std::string> rest;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--yes") {
            options->yes = true;
        } else if (a == "--fake-space" || a == "--fake-plan") {
            if (i + 1 == args.size()) {
                complain(a + " needs a value");
                return false;
            }
            const std::string value = args[++i];
            if (a == "--fake-space") {
                options->space = parseSize(value);
                if (!options->space) {
                    complain("--fake-space takes a size like 2G, 600M or 0, not '" + value + "'");
                    return false;
                }
            } else {
                int plan = -1;
                for (int p = 0; p < 3; ++p)
                    if (value == kPlans[p]) plan = p;
                if (plan < 0) {
                    complain("--fake-plan takes random, small or large, not '" + value + "'");
                    return false;
                }
                options->plan = plan;
            }
        } else {
            rest.push_back(a);
        }
    }
    args = rest;
    return true;
}

bool planFakeImages(const FakeSpaceOptions& options, PDAssistantSetup* setup) {
    setup->setInitialSliderValue();
    if (options.space) setup->setDiskUsage(*options.space);
    setup->selectedMenuItem = options.plan;
    setup->updateDistribution(false);
    if (!setup->needsConfirmationToGoOn() || options.yes) return true;
    if (::isatty(STDIN_FILENO) && ::isatty(STDERR_FILENO)) {
        std::fprintf(stderr, "%s\n%s\n", PDAssistantSetup::areYouSureTitle, PDAssistantSetup::areYouSureText);
        if (QVAskYesNoOnTerminal("Use no space for fake disk images?", false)) return true;
        complain("nothing done: choose some space with --fake-space");
        return false;
    }
    complain("no space for fake disk images needs --yes (fake images protect your plausible deniability)");
    return false;
}

int runDatabaseUpgrade(const DBMasterRef& master, const PDAssistantSetup& setup, bool newDatabase) {
    auto mark = QVHoldUpgradeMark();
    if (!mark) {
        complain("another Quillvane process is upgrading the database");
        return ExitRefused;
    }
    prepareConsoleSession();
    std::printf("%s\n", setup.summaryText.c_str());
    std::fflush(stdout);

    TerminalAssistantView view;
    auto assistant = std::make_shared<PDAssistant>(master, view, !newDatabase);
    assistant->fakeImageSizes = setup.folders;

    struct sigaction action {
    }, previous{};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, &previous);
    interrupts = 0;
    assistant->start();
    QEventLoop loop;
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, [&] {
        if (interrupts.exchange(0) > 0 && !view.ended) {
            view.endLine();
            std::fprintf(stderr, "qv: cancelling...\n");
            assistant->cancelMigration();
        }
        if (view.ended || view.fatal) loop.quit();
    });
    tick.start(100);
    loop.exec();
    tick.stop();
    QCoreApplication::processEvents();
    ::sigaction(SIGINT, &previous, nullptr);
    QVNotificationCenter::defaultCenter().flush(2.0);

    if (view.fatal) return ExitFailure;
    if (view.cancelled) {
        complain("the upgrade was cancelled; the database is as it was (run it again with: qv upgrade)");
        return ExitFailure;
    }
    if (view.error) {
        complain("the upgrade failed: " + view.error->description);
        return ExitFailure;
    }
    return ExitOK;
}

int cmdUpgrade(const std::vector<std::string>& argsIn) {
    std::vector<std::string> args = argsIn;
    FakeSpaceOptions options;
    if (!parseFakeSpaceOptions(args, &options)) return ExitUsage;
    if (!args.empty()) {
        complain("usage: qv upgrade [--fake-space SIZE] [--fake-plan random|small|large] [--yes]");
        return ExitUsage;
    }
    int code = ExitOK;
    bool needsUpgrade = false, existed = false;
    DBMasterRef master = openDatabase(&code, &needsUpgrade, &existed);
    if (!master) return code;
    if (!existed) {
        complain("there is no database yet (make a Folder Set with: qv set create)");
        return ExitRefused;
    }
    if (!needsUpgrade) {
        complain("the database needs no upgrade");
        return ExitOK;
    }
    PDAssistantSetup plan;
    if (!planFakeImages(options, &plan)) return ExitRefused;
    return runDatabaseUpgrade(master, plan, false);
}

} // namespace qv::cli
