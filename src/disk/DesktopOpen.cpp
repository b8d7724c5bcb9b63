#include "disk/DesktopOpen.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QStringList>
#include <QUrl>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

#include "toolkit/Log.h"

extern char** environ;

namespace qv {

namespace {

constexpr const char* kXdgOpen = "/usr/bin/xdg-open";

// Starts the program with its output thrown away and reaps it on a thread of
// its own, so that no zombie is left and nobody waits for it.
bool spawnDetached(const std::vector<std::string>& argv, QVError* error) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    // Its own process group: a Ctrl-C meant for qv doesn't reach the application.
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attr, 0);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = 0;
    const int rc = ::posix_spawn(&pid, argv[0].c_str(), &actions, &attr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        QV_LOG_ERROR(QVFormat("couldn't start %s: %s", argv[0].c_str(), std::strerror(rc)));
        QVSetError(error, QVPOSIXErrorDomain, rc,
                   QVFormat("Couldn't start %s: %s", argv[0].c_str(), std::strerror(rc)));
        return false;
    }
    std::thread([pid] {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }).detach();
    return true;
}

} // namespace

bool QVOpenURL(const std::string& path, QVError* error) {
    if (path.empty()) {
        QVSetError(error, QVPOSIXErrorDomain, ENOENT, "Nothing to open.");
        return false;
    }
    return spawnDetached({kXdgOpen, path}, error);
}

bool QVRevealInFileManager(const std::vector<std::string>& paths, QVError* error) {
    if (paths.empty()) return true;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        QStringList uris;
        for (const auto& p : paths) uris << QUrl::fromLocalFile(QString::fromStdString(p)).toString();
        QDBusMessage call = QDBusMessage::createMethodCall("org.freedesktop.FileManager1", "/org/freedesktop/FileManager1",
                                                           "org.freedesktop.FileManager1", "ShowItems");
        call << uris << QString();
        QDBusMessage reply = bus.call(call, QDBus::Block, 5000);
        if (reply.type() == QDBusMessage::ReplyMessage) return true;
        QVLogInfo(QVFormat("no file manager shows items (%s); opening the folder instead",
                           reply.errorMessage().toStdString().c_str()));
    }
    const std::string parent = std::filesystem::path(paths.front()).parent_path().string();
    return QVOpenURL(parent.empty() ? "/" : parent, error);
}

} // namespace qv
