#pragma once
// What the folder-action tests share: a private set of applications (desktop
// entries under a temporary XDG_DATA_HOME, with XDG_DATA_DIRS pointed at an
// empty directory so the machine's own entries stay out of it), programs with
// names of their own so that no other process on the machine counts as their
// instance, and children that are always stopped when the test ends.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
#include "ui/logic/QVNotificationCenter.h"

extern char** environ;

namespace qv::test {

// Sets an environment variable for the life of the object.
class ScopedVariable {
public:
    ScopedVariable(const char* name, const std::optional<std::string>& value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value)
            ::setenv(name, value->c_str(), 1);
        else
            ::unsetenv(name);
    }
    ~ScopedVariable() {
        if (old_)
            ::setenv(name_, old_->c_str(), 1);
        else
            ::unsetenv(name_);
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    const char* name_;
    std::optional<std::string> old_;
};

// Children started by a test, each in a process group of its own; each group
// is sent SIGKILL and the child reaped when the object goes, whatever
// happened to the test.
class Children {
public:
    ~Children() { stopAll(); }
    void stopAll() {
        for (pid_t pid : pids_) stop(pid);
        pids_.clear();
    }
    pid_t start(const std::vector<std::string>& argv, const std::string& cwd = "") {
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
        // A group of its own, so that whatever it starts goes with it.
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
        posix_spawnattr_setpgroup(&attr, 0);
        pid_t pid = -1;
        if (::posix_spawn(&pid, argv[0].c_str(), &actions, &attr, args.data(), environ) != 0) pid = -1;
        posix_spawnattr_destroy(&attr);
        posix_spawn_file_actions_destroy(&actions);
        if (pid > 0) pids_.push_back(pid);
        return pid;
    }
    // SIGKILL to the child's group, and reap the child.
    static void stop(pid_t pid) {
        if (pid <= 0) return;
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    // Whether the child has exited (or was killed); reaps it when it has.
    bool exited(pid_t pid) {
        int status = 0;
        const pid_t r = ::waitpid(pid, &status, WNOHANG);
        if (r == pid) {
            std::erase(pids_, pid);
            return true;
        }
        return r < 0;
    }

private:
    std::vector<pid_t> pids_;
};

// A temporary home whose applications directories hold only what the test puts there.
class ApplicationsSandbox {
public:
    ApplicationsSandbox() : systemDir_(home_.root() + "/system-data"), binDir_(home_.root() + "/bin") {
        std::filesystem::create_directories(applicationsDir());
        std::filesystem::create_directories(systemDir_ + "/applications");
        std::filesystem::create_directories(binDir_);
    }

    const TempHome& home() const { return home_; }
    std::string applicationsDir() const { return home_.dataHome() + "/applications"; }
    std::string systemApplicationsDir() const { return systemDir_ + "/applications"; }
    std::string path(const std::string& name) const { return home_.root() + "/" + name; }

    // Writes a desktop entry under `dir` (the user's applications directory
    // when empty) at the relative path, and returns its full path.
    std::string writeEntry(const std::string& relative, const std::string& contents, const std::string& dir = "") const {
        const std::string full = (dir.empty() ? applicationsDir() : dir) + "/" + relative;
        std::filesystem::create_directories(std::filesystem::path(full).parent_path());
        std::ofstream(full) << contents;
        return full;
    }
    // "[Desktop Entry]\nType=Application\nName=<name>\nExec=<exec>\n" and more lines.
    std::string writeApplication(const std::string& id, const std::string& name, const std::string& exec,
                                 const std::string& more = "") const {
        return writeEntry(id, "[Desktop Entry]\nType=Application\nName=" + name + "\nExec=" + exec + "\n" + more);
    }

    // A copy of /bin/sleep under a name no other process on the machine has.
    std::string sleeper(const std::string& name) const {
        const std::string target = binDir_ + "/" + name;
        std::filesystem::copy_file("/bin/sleep", target, std::filesystem::copy_options::overwrite_existing);
        ::chmod(target.c_str(), 0755);
        return target;
    }
    // An executable shell script with the body given.
    std::string script(const std::string& name, const std::string& body) const {
        const std::string target = binDir_ + "/" + name;
        std::ofstream(target) << "#!/bin/sh\n" << body << "\n";
        ::chmod(target.c_str(), 0755);
        return target;
    }

private:
    TempHome home_;
    std::string systemDir_;
    std::string binDir_;
    ScopedVariable dataDirs_{"XDG_DATA_DIRS", home_.root() + "/system-data"};
};

// Every message the process's notification centre shows goes to `shown`
// (through the built-in way) while the object lives.
class RecordedNotifications {
public:
    struct Message {
        int type;
        std::string text;
        bool sticky;
    };
    RecordedNotifications() {
        auto& centre = QVNotificationCenter::defaultCenter();
        previous_ = centre.delivery(QVNotificationWayBuiltIn);
        centre.setDelivery(QVNotificationWayBuiltIn, recorder_);
        centre.setPreferencesProvider(std::make_shared<BuiltInWay>());
    }
    ~RecordedNotifications() {
        auto& centre = QVNotificationCenter::defaultCenter();
        centre.setDelivery(QVNotificationWayBuiltIn, previous_);
        centre.setPreferencesProvider(nullptr);
    }
    // What was shown so far (delivery runs on the main thread: turn its loop first).
    std::vector<Message> shown() const {
        std::lock_guard lock(recorder_->mutex);
        return recorder_->messages;
    }
    // The texts of the messages of one type.
    std::vector<std::string> texts(int type) const {
        std::vector<std::string> out;
        for (const auto& m : shown())
            if (m.type == type) out.push_back(m.text);
        return out;
    }

private:
    struct Recorder : NotificationDelivery {
        std::mutex mutex;
        std::vector<Message> messages;
        void deliver(const QVNotificationRef& n) override {
            std::lock_guard lock(mutex);
            messages.push_back({n->type(), n->msg(), n->isSticky()});
        }
    };
    struct BuiltInWay : PreferencesProvider {
        Value fetchValueForPreference(const std::string& key) override {
            return key == "QVNotificationType" ? Value(int(QVNotificationWayBuiltIn)) : Value();
        }
    };
    std::shared_ptr<Recorder> recorder_ = std::make_shared<Recorder>();
    std::shared_ptr<NotificationDelivery> previous_;
};

// Waits (a bounded while, so a fault fails rather than hangs) until `done`.
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
