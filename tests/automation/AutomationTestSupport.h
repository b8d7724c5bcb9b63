#pragma once
// What the folder-action tests share: a private set of applications (desktop
// entries under a temporary XDG_DATA_HOME; XDG_DATA_DIRS points at an empty
// directory so the machine's own entries stay out), programs with names of
// their own so that no other process counts as their instance, children that
// are always killed when the test ends, and the messages the centre showed.
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/TempHome.h"
#include "notify/QVNotificationCenter.h"
#include "vault/Schemas.h"

extern char** environ;

namespace qv::test {

// Sets (or, given no value, removes) an environment variable for one scope.
struct ScopedVariable {
    const char* name;
    std::optional<std::string> old;
    ScopedVariable(const char* n, const std::optional<std::string>& value) : name(n) {
        if (const char* o = std::getenv(n)) old = o;
        value ? ::setenv(n, value->c_str(), 1) : ::unsetenv(n);
    }
    ~ScopedVariable() { old ? ::setenv(name, old->c_str(), 1) : ::unsetenv(name); }
};

// Children of a test, each in a process group of its own, which is killed
// (SIGKILL) with all it started when the object goes.
class Children {
public:
    ~Children() { stopAll(); }
    pid_t start(const std::vector<std::string>& argv, const std::string& cwd = "") {
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
        pid_t pid = -1;
        if (::posix_spawn(&pid, argv[0].c_str(), &actions, &attr, args.data(), environ) == 0) pids_.push_back(pid);
        posix_spawnattr_destroy(&attr);
        posix_spawn_file_actions_destroy(&actions);
        return pid;
    }
    void stopAll() {
        for (pid_t pid : pids_) {
            ::kill(-pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        pids_.clear();
    }
    // Whether the child has ended; reaps it when it has.
    bool exited(pid_t pid) {
        if (::waitpid(pid, nullptr, WNOHANG) == 0) return false;
        std::erase(pids_, pid);
        return true;
    }

private:
    std::vector<pid_t> pids_;
};

class ApplicationsSandbox {
public:
    ApplicationsSandbox() {
        std::filesystem::create_directories(home_.dataHome() + "/applications");
        std::filesystem::create_directories(path("bin"));
    }
    std::string path(const std::string& name) const { return home_.root() + "/" + name; }
    // A desktop entry at `relative` under the user's applications directory, or under `dir`.
    std::string writeEntry(const std::string& relative, const std::string& contents, const std::string& dir = "") const {
        const std::string full = (dir.empty() ? home_.dataHome() + "/applications" : dir) + "/" + relative;
        std::filesystem::create_directories(std::filesystem::path(full).parent_path());
        std::ofstream(full) << contents;
        return full;
    }
    std::string writeApplication(const std::string& id, const std::string& name, const std::string& exec,
                                 const std::string& more = "") const {
        return writeEntry(id, "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + exec + "\n" + more);
    }
    // A copy of /bin/sleep under a name that no other process has.
    std::string sleeper(const std::string& name) const {
        std::filesystem::copy_file("/bin/sleep", path("bin/" + name), std::filesystem::copy_options::overwrite_existing);
        return path("bin/" + name);
    }
    std::string script(const std::string& name, const std::string& body) const {
        std::ofstream(path("bin/" + name)) << "#!/bin/sh\n" << body << "\n";
        ::chmod(path("bin/" + name).c_str(), 0755);
        return path("bin/" + name);
    }

private:
    TempHome home_;
    ScopedVariable dataDirs_{"XDG_DATA_DIRS", home_.root() + "/system"};
};

// Every message of the process's notification centre, through the built-in
// way, while the object lives. Delivery runs on the main thread: turn its loop
// before reading.
class RecordedNotifications {
public:
    struct Message { int type; std::string text; bool sticky; };
    RecordedNotifications() : previous_(centre().delivery(QVNotificationWayBuiltIn)) {
        centre().setDelivery(QVNotificationWayBuiltIn, recorder_);
        centre().setPreferencesProvider(recorder_);
    }
    ~RecordedNotifications() {
        centre().setDelivery(QVNotificationWayBuiltIn, previous_);
        centre().setPreferencesProvider(nullptr);
    }
    std::vector<Message> shown() const {
        std::lock_guard lock(recorder_->mutex);
        return recorder_->messages;
    }
    // The texts of one type of message, or of all.
    std::vector<std::string> texts(std::optional<int> type = std::nullopt) const {
        std::vector<std::string> out;
        for (const auto& m : shown())
            if (!type || m.type == *type) out.push_back(m.text);
        return out;
    }

private:
    static QVNotificationCenter& centre() { return QVNotificationCenter::defaultCenter(); }
    // Shared with the centre, so that a delivery still on its way finds it.
    struct Recorder : NotificationDelivery, PreferencesProvider {
        std::mutex mutex;
        std::vector<Message> messages;
        void deliver(const QVNotificationRef& n) override {
            std::lock_guard lock(mutex);
            messages.push_back({n->type(), n->msg(), n->isSticky()});
        }
        Value fetchValueForPreference(const std::string& key) override {
            return key == "QVNotificationType" ? Value(int(QVNotificationWayBuiltIn)) : Value();
        }
    };
    std::shared_ptr<NotificationDelivery> previous_;
    std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
};

inline QVRecordRef folderAction(int64_t code, const std::string& url, Value parameter = Value()) {
    QVRecordRef action = QVFolderActionCreate(URLValue{url}, code);
    FolderActionRef{action}.setParameter(parameter);
    return action;
}
// Gives the folder a new lock (or unlock) list.
inline void setActions(const QVRecordRef& folder, bool lock, const std::vector<QVRecordRef>& actions) {
    Array items;
    for (const auto& a : actions) items.push_back(Value(a));
    folder->setValueForKey(Value::newArray(items), lock ? "lockActions" : "unlockActions");
}

// Waits a bounded while (so that a fault fails rather than hangs) until `done`.
template <class Done>
bool eventually(Done done, int timeoutMs = 20000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

} // namespace qv::test
