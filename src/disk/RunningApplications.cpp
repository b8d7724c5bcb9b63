// GIO first: Qt's keyword macros (signals, slots) must not reach its headers.
#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

#include "disk/RunningApplications.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <QStandardPaths>
#include <QString>
#include <QStringList>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <set>

#include "disk/URLHelpers.h"
#include "sys/ProcFiles.h"
#include "sys/ProcList.h"
#include "toolkit/Log.h"

namespace qv {

namespace {

namespace fs = std::filesystem;

constexpr const char* kDesktopSuffix = ".desktop";
constexpr const char* kTerminalAlternative = "/usr/bin/x-terminal-emulator";

struct GObjectUnref {
    void operator()(gpointer object) const {
        if (object) g_object_unref(object);
    }
};
using DesktopAppInfoPtr = std::unique_ptr<GDesktopAppInfo, GObjectUnref>;

struct GFree {
    void operator()(gpointer p) const { g_free(p); }
};
using GCharPtr = std::unique_ptr<gchar, GFree>;

bool endsWith(const std::string& s, const std::string& suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The path with every link resolved, or empty when it can't be resolved.
std::string realPath(const std::string& path) {
    if (path.empty()) return "";
    char buffer[PATH_MAX];
    return ::realpath(path.c_str(), buffer) ? std::string(buffer) : std::string();
}

// State letter and start time (field 22, clock ticks after boot) of the process.
bool readProcessStat(pid_t pid, char* state, unsigned long long* startTime) {
    const auto stat = QVReadProcStat(pid);
    const auto start = stat ? stat->number(22) : std::nullopt;
    if (!start) return false;
    *state = stat->state();
    *startTime = *start;
    return true;
}

// What a process of ours runs: its executable and the arguments that name a
// script when the executable is an interpreter.
struct ProcessImage {
    pid_t pid = 0;
    unsigned long long startTime = 0;
    std::string executable;           // resolved, " (deleted)" dropped
    std::vector<std::string> scripts; // arguments 1 and 2, resolved
};

// `withScripts`: also resolve the arguments that may name a script.
std::vector<ProcessImage> ourProcesses(bool withScripts) {
    std::vector<ProcessImage> images;
    std::vector<QVProcEntry> table;
    if (GetBSDProcessList(&table) != 0) return images;
    const uid_t us = ::geteuid();
    const pid_t self = ::getpid();
    for (const QVProcEntry& entry : table) {
        if (entry.zombie || entry.uid != us || entry.pid == self) continue;
        const std::string dir = "/proc/" + std::to_string(entry.pid);
        ProcessImage image;
        image.pid = entry.pid;
        char state = '?';
        if (!readProcessStat(entry.pid, &state, &image.startTime) || state == 'Z' || state == 'X') continue;
        image.executable = QVReadProcLink(dir + "/exe");
        if (image.executable.empty()) continue;  // a kernel thread, or gone
        // A script runs as "<interpreter> [one option] <script> ...": the kernel
        // puts the script's path as it was executed among the first arguments.
        std::string cmdline;
        if (withScripts && QVReadProcFile(dir + "/cmdline", cmdline, 65536)) {
            std::vector<std::string> args;
            size_t start = 0;
            while (start < cmdline.size() && args.size() < 3) {
                size_t end = cmdline.find('\0', start);
                if (end == std::string::npos) end = cmdline.size();
                args.push_back(cmdline.substr(start, end - start));
                start = end + 1;
            }
            const std::string cwd = QVReadProcLink(dir + "/cwd");
            for (size_t i = 1; i < args.size(); ++i) {
                if (args[i].empty() || args[i][0] == '-') continue;
                const std::string path = args[i][0] == '/' || cwd.empty() ? args[i] : cwd + "/" + args[i];
                const std::string resolved = realPath(path);
                if (!resolved.empty()) image.scripts.push_back(resolved);
            }
        }
        images.push_back(std::move(image));
    }
    return images;
}

bool isScript(const std::string& program) {
    const int fd = ::open(program.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char buffer[2];
    const ssize_t n = ::read(fd, buffer, 2);
    ::close(fd);
    return n == 2 && buffer[0] == '#' && buffer[1] == '!';
}

bool runsProgram(const ProcessImage& image, const std::string& program, bool script) {
    if (image.executable == program) return true;
    if (!script) return false;
    for (const auto& s : image.scripts)
        if (s == program) return true;
    return false;
}

// The applications directories, in the order they are searched.
std::vector<std::string> applicationDirectories() {
    std::vector<std::string> dirs;
    for (const QString& dir : QStandardPaths::standardLocations(QStandardPaths::ApplicationsLocation)) {
        std::string d = dir.toStdString();
        while (d.size() > 1 && d.back() == '/') d.pop_back();
        if (!d.empty()) dirs.push_back(d);
    }
    return dirs;
}

// Every entry file under one applications directory, by desktop file id.
std::map<std::string, std::string> entriesUnder(const std::string& dir) {
    std::map<std::string, std::string> entries;
    std::error_code ec;
    fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        const std::string path = it->path().string();
        if (!endsWith(path, kDesktopSuffix)) continue;
        std::error_code typeError;
        if (!it->is_regular_file(typeError)) continue;
        std::string id = path.substr(dir.size() + 1);
        for (char& c : id)
            if (c == '/') c = '-';
        entries.emplace(id, path);
    }
    return entries;
}

std::vector<std::string> splitList(const char* list) {
    std::vector<std::string> items;
    if (!list) return items;
    std::string item;
    for (const char* p = list; *p; ++p) {
        if (*p == ';') {
            if (!item.empty()) items.push_back(item);
            item.clear();
        } else {
            item += *p;
        }
    }
    if (!item.empty()) items.push_back(item);
    return items;
}

DesktopAppInfoPtr loadEntry(const std::string& path) {
    if (path.empty()) return nullptr;
    DesktopAppInfoPtr info(g_desktop_app_info_new_from_filename(path.c_str()));
    if (info && g_desktop_app_info_get_is_hidden(info.get())) return nullptr;
    return info;
}

} // namespace

// ---------------------------------------------------------------------------
// Entries

std::string QVDesktopEntryPathForId(const std::string& desktopFileId) {
    if (!endsWith(desktopFileId, kDesktopSuffix) || desktopFileId.size() == std::strlen(kDesktopSuffix) ||
        desktopFileId.find('/') != std::string::npos)
        return "";
    for (const std::string& dir : applicationDirectories()) {
        const std::string direct = dir + "/" + desktopFileId;
        std::error_code ec;
        if (fs::is_regular_file(direct, ec)) return direct;
        if (desktopFileId.find('-') == std::string::npos) continue;
        const auto entries = entriesUnder(dir);
        if (auto found = entries.find(desktopFileId); found != entries.end()) return found->second;
    }
    return "";
}

std::optional<QVDesktopApplication> QVDesktopApplicationAtPath(const std::string& path) {
    DesktopAppInfoPtr info = loadEntry(path);
    if (!info) return std::nullopt;
    QVDesktopApplication application;
    application.path = path;
    application.desktopFileId = bundleID(path);
    GAppInfo* appInfo = G_APP_INFO(info.get());
    if (const char* name = g_app_info_get_name(appInfo)) application.name = name;
    if (const char* executable = g_app_info_get_executable(appInfo); executable && *executable) {
        if (executable[0] == '/') {
            application.program = realPath(executable);
        } else {
            GCharPtr found(g_find_program_in_path(executable));
            if (found) application.program = realPath(found.get());
        }
    }
    application.categories = splitList(g_desktop_app_info_get_categories(info.get()));
    return application;
}

std::optional<QVDesktopApplication> QVDesktopApplicationWithId(const std::string& desktopFileId) {
    const std::string path = QVDesktopEntryPathForId(desktopFileId);
    if (path.empty()) return std::nullopt;
    auto application = QVDesktopApplicationAtPath(path);
    // Named by the id asked for: an entry outside the directories can't be reached by id anyway.
    if (application) application->desktopFileId = desktopFileId;
    return application;
}

std::vector<QVDesktopApplication> QVDesktopApplications() {
    std::vector<QVDesktopApplication> applications;
    std::set<std::string> seen;
    for (const std::string& dir : applicationDirectories()) {
        for (const auto& [id, path] : entriesUnder(dir)) {
            if (!seen.insert(id).second) continue;
            if (auto application = QVDesktopApplicationAtPath(path)) {
                application->desktopFileId = id;
                applications.push_back(std::move(*application));
            }
        }
    }
    return applications;
}

bool QVLaunchApplication(const std::string& path, QVError* error) {
    DesktopAppInfoPtr info = loadEntry(path);
    if (!info) {
        QV_LOG_ERROR(QVFormat("not an application entry: %s", path.c_str()));
        QVSetAppError(error, QVErrorFailed, QVFormat("'%s' is no application that can be started.", path.c_str()));
        return false;
    }
    GError* launchError = nullptr;
    if (!g_app_info_launch(G_APP_INFO(info.get()), nullptr, nullptr, &launchError)) {
        const std::string why = launchError && launchError->message ? launchError->message : "unknown reason";
        if (launchError) g_error_free(launchError);
        QV_LOG_ERROR(QVFormat("couldn't launch %s: %s", path.c_str(), why.c_str()));
        QVSetAppError(error, QVErrorFailed, QVFormat("Couldn't start '%s': %s", path.c_str(), why.c_str()));
        return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Running instances

QVRunningApplication::QVRunningApplication(pid_t pid, unsigned long long startTime, std::string bundleIdentifier,
                                           std::string localizedName)
    : pid_(pid),
      startTime_(startTime),
      bundleIdentifier_(std::move(bundleIdentifier)),
      localizedName_(std::move(localizedName)) {}

std::vector<QVRunningApplication> QVRunningApplication::runningApplicationsWithBundleIdentifier(
    const std::string& desktopFileId) {
    auto application = QVDesktopApplicationWithId(desktopFileId);
    if (!application) return {};
    return runningInstancesOf(*application);
}

std::vector<QVRunningApplication> QVRunningApplication::runningInstancesOf(const QVDesktopApplication& application) {
    std::vector<QVRunningApplication> instances;
    if (application.program.empty()) return instances;
    const bool script = isScript(application.program);
    for (const ProcessImage& image : ourProcesses(script)) {
        if (runsProgram(image, application.program, script))
            instances.push_back(
                QVRunningApplication(image.pid, image.startTime, application.desktopFileId, application.name));
    }
    return instances;
}

bool QVRunningApplication::terminate() const {
    // Never a signal to a process that merely took over the number.
    if (isTerminated()) return true;
    if (::kill(pid_, SIGTERM) == 0) return true;
    if (errno == ESRCH) return true;
    QV_LOG_WARN(QVFormat("couldn't ask %s (%d) to quit: %s", localizedName_.c_str(), int(pid_), std::strerror(errno)));
    return false;
}

bool QVRunningApplication::isTerminated() const {
    char state = '?';
    unsigned long long startTime = 0;
    if (!readProcessStat(pid_, &state, &startTime)) return true;
    return state == 'Z' || state == 'X' || startTime != startTime_;
}

std::optional<QVRunningApplication> QVRunningTerminalApplication() {
    const std::vector<QVDesktopApplication> applications = QVDesktopApplications();
    std::vector<const QVDesktopApplication*> terminals;
    for (const auto& application : applications) {
        for (const auto& category : application.categories) {
            if (category == QVTerminalEmulatorCategory) {
                terminals.push_back(&application);
                break;
            }
        }
    }
    // The system's choice of terminal first.
    const std::string preferred = realPath(kTerminalAlternative);
    if (!preferred.empty()) {
        for (const auto& application : applications) {
            if (application.program != preferred) continue;
            auto instances = QVRunningApplication::runningInstancesOf(application);
            if (!instances.empty()) return instances.front();
        }
    }
    for (const QVDesktopApplication* application : terminals) {
        auto instances = QVRunningApplication::runningInstancesOf(*application);
        if (!instances.empty()) return instances.front();
    }
    return std::nullopt;
}

} // namespace qv
