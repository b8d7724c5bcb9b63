#include "sys/ProcList.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>

#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {
namespace {

// The effective uid of the "Uid:" line of /proc/<pid>/status (real, effective,
// saved, file system): the one that decides what the process may do.
bool parseUid(const std::string& status, uid_t& uid) {
    size_t at = status.find("\nUid:");
    if (at == std::string::npos) return false;
    const char* p = status.c_str() + at + 5;
    char* end = nullptr;
    std::strtoul(p, &end, 10); // real
    if (end == p) return false;
    p = end;
    unsigned long effective = std::strtoul(p, &end, 10);
    if (end == p) return false;
    uid = static_cast<uid_t>(effective);
    return true;
}

bool readEntry(pid_t pid, QVProcEntry& entry) {
    const std::string dir = "/proc/" + std::to_string(pid);
    std::string text;
    if (!QVReadProcFile(dir + "/stat", text, 4096)) return false;
    auto stat = QVParseProcStat(text);
    if (!stat) return false;
    if (!QVReadProcFile(dir + "/status", text) || !parseUid(text, entry.uid)) return false;
    entry.comm = std::move(stat->comm);
    entry.state = stat->state();
    entry.pid = pid;
    entry.zombie = entry.state == 'Z';
    return true;
}

// A name as the kernel would keep it.
std::string cutName(const std::string& name) {
    return name.size() > QVCommandNameLength ? name.substr(0, QVCommandNameLength) : name;
}

// Logs in the caller's name and line, as if the caller had logged.
bool loadTable(std::vector<QVProcEntry>& table, const char* caller, int line) {
    int err = GetBSDProcessList(&table);
    if (err != 0) {
        QVLogError(caller, line, QVFormat("GetBSDProcessList returned: %d", err));
        return false;
    }
    return true;
}

} // namespace

std::optional<unsigned long long> QVProcStat::number(size_t field) const {
    if (field < 3 || field - 3 >= fields.size()) return std::nullopt;
    const std::string& text = fields[field - 3];
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0') return std::nullopt;
    return value;
}

std::optional<QVProcStat> QVParseProcStat(const std::string& text) {
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open || close + 2 >= text.size())
        return std::nullopt;
    QVProcStat stat;
    stat.comm = text.substr(open + 1, close - open - 1);
    size_t at = close + 2;
    while (at < text.size()) {
        size_t end = text.find_first_of(" \n", at);
        if (end == std::string::npos) end = text.size();
        if (end > at) stat.fields.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    if (stat.fields.empty()) return std::nullopt;
    return stat;
}

std::optional<QVProcStat> QVReadProcStat(pid_t pid) {
    std::string text;
    if (pid <= 0 || !QVReadProcFile("/proc/" + std::to_string(pid) + "/stat", text, 4096)) return std::nullopt;
    return QVParseProcStat(text);
}

std::vector<pid_t> QVProcessIds(int* err) {
    std::vector<pid_t> pids;
    if (err) *err = 0;
    // /proc lists each process once (threads stay hidden), and a directory read
    // of it never fails because the table grew, so one pass is the whole table.
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir("/proc"), &::closedir);
    if (!dir) {
        if (err) *err = errno;
        return pids;
    }
    for (;;) {
        errno = 0;
        struct dirent* d = ::readdir(dir.get());
        if (!d) {
            if (errno != 0) {
                if (err) *err = errno;
                pids.clear();
            }
            return pids;
        }
        char* end = nullptr;
        long pid = std::strtol(d->d_name, &end, 10);
        if (end == d->d_name || *end != '\0' || pid <= 0) continue;
        pids.push_back(static_cast<pid_t>(pid));
    }
}

bool QVProcessAlive(pid_t pid) {
    auto stat = QVReadProcStat(pid);
    return stat && stat->state() != 'Z' && stat->state() != 'X';
}

std::string QVProcessName(pid_t pid) {
    std::string comm;
    if (pid <= 0 || !QVReadProcFile("/proc/" + std::to_string(pid) + "/comm", comm, 256)) return {};
    return comm.substr(0, comm.find('\n'));
}

pid_t QVFindProcessByArguments(const std::vector<std::string>& argv) {
    std::string wanted;
    for (const auto& a : argv) {
        wanted += a;
        wanted.push_back('\0');
    }
    for (pid_t pid : QVProcessIds()) {
        std::string cmdline;
        if (QVReadProcFile("/proc/" + std::to_string(pid) + "/cmdline", cmdline, wanted.size() + 1) &&
            cmdline == wanted && QVProcessAlive(pid))
            return pid;
    }
    return 0;
}

int GetBSDProcessList(std::vector<QVProcEntry>* procList) {
    if (!procList) {
        QV_LOG_FAILED("procList != NULL");
        return EINVAL;
    }
    procList->clear();
    try {
        int err = 0;
        for (pid_t pid : QVProcessIds(&err)) {
            QVProcEntry entry;
            if (readEntry(pid, entry)) procList->push_back(std::move(entry));
        }
        if (err != 0) return err;
    } catch (const std::bad_alloc&) {
        procList->clear();
        return ENOMEM;
    }
    return 0;
}

bool pidIsApp(pid_t pid, const std::vector<std::string>& names, int* outIndex) {
    std::vector<QVProcEntry> table;
    if (!loadTable(table, __func__, __LINE__)) return false;
    for (const QVProcEntry& entry : table) {
        if (entry.pid != pid) continue;
        bool hit = false;
        for (size_t i = 0; i < names.size(); ++i) {
            if (entry.comm.find(names[i]) != std::string::npos) {
                hit = true;
                if (outIndex) *outIndex = static_cast<int>(i);
            }
        }
        return hit;
    }
    return false;
}

pid_t pidForApp(const std::string& name, bool ours) {
    std::vector<QVProcEntry> table;
    if (!loadTable(table, __func__, __LINE__)) return -1;
    const std::string wanted = cutName(name);
    const uid_t me = ::getuid();
    for (const QVProcEntry& entry : table) {
        if (entry.zombie || entry.comm != wanted) continue;
        if (ours && entry.uid != me) continue;
        return entry.pid;
    }
    return -1;
}

std::optional<std::string> appForPid(pid_t pid) {
    if (pid <= 0) return std::nullopt;
    const std::string dir = "/proc/" + std::to_string(pid);
    std::string comm;
    if (QVReadProcFile(dir + "/comm", comm, 256)) {
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        if (comm.size() < QVCommandNameLength) return comm;
        // The kernel may have cut the name: the program's file or argv[0] holds it whole.
        const std::string exe = QVLastPathComponent(QVReadProcLink(dir + "/exe"));
        if (!exe.empty() && exe.compare(0, comm.size(), comm) == 0) return exe;
        std::string cmdline;
        if (QVReadProcFile(dir + "/cmdline", cmdline, 4096) && !cmdline.empty()) {
            std::string arg0 = QVLastPathComponent(std::string(cmdline.c_str()));
            if (arg0.compare(0, comm.size(), comm) == 0) return arg0;
        }
        return comm;
    }
    std::vector<QVProcEntry> table;
    if (!loadTable(table, __func__, __LINE__)) return std::nullopt;
    for (const QVProcEntry& entry : table) {
        if (entry.pid == pid) return entry.comm;
    }
    return std::nullopt;
}

std::vector<QVProcInfo> infoForAppsWithName(const std::string& name) {
    std::vector<QVProcInfo> found;
    // An empty name is in every command name: it must never select everything.
    if (name.empty()) return found;
    std::vector<QVProcEntry> table;
    if (!loadTable(table, __func__, __LINE__)) return found;
    const std::string wanted = cutName(name);
    for (const QVProcEntry& entry : table) {
        if (entry.zombie || entry.comm.find(wanted) == std::string::npos) continue;
        found.push_back({entry.uid, entry.pid, entry.comm});
    }
    return found;
}

int infoForApp(const std::string& name, pid_t* outPid, uid_t* outUid) {
    if (name.empty()) return -1;
    std::vector<QVProcEntry> table;
    int err = GetBSDProcessList(&table);
    if (err != 0) {
        QV_LOG_ERROR(QVFormat("GetBSDProcessList returned: %d", err));
        return err;
    }
    const std::string wanted = cutName(name);
    for (const QVProcEntry& entry : table) {
        if (entry.comm.find(wanted) == std::string::npos) continue;
        if (entry.zombie) return 0;
        if (outPid) *outPid = entry.pid;
        if (outUid) *outUid = entry.uid;
        return 0;
    }
    return -1;
}

namespace {

void stopProcess(pid_t pid, useconds_t delay) {
    if (delay != 0) {
        ::kill(pid, SIGTERM);
        ::usleep(delay);
    }
    ::kill(pid, SIGKILL);
}

} // namespace

bool killProcsNamed(const std::string& name, useconds_t delay) {
    const pid_t self = ::getpid();
    pid_t last = 0;
    for (const QVProcInfo& info : infoForAppsWithName(name)) {
        if (info.pid == self) continue;
        stopProcess(info.pid, delay);
        last = info.pid;
    }
    return last > 0;
}

pid_t killOurProcNamed(const std::string& name, useconds_t delay) {
    const pid_t self = ::getpid();
    const uid_t me = ::getuid();
    for (const QVProcInfo& info : infoForAppsWithName(name)) {
        if (info.uid != me || info.pid == self) continue;
        stopProcess(info.pid, delay);
        return info.pid;
    }
    return 0;
}

pid_t signalProc(int sig, const std::string& name, bool ours) {
    const pid_t self = ::getpid();
    const uid_t me = ::getuid();
    for (const QVProcInfo& info : infoForAppsWithName(name)) {
        if ((ours && info.uid != me) || info.pid == self) continue;
        ::kill(info.pid, sig);
        return info.pid;
    }
    return 0;
}

} // namespace qv
