#pragma once
// The process table, read from /proc, and the lookups that name the program
// holding a volume busy or stop a helper by name.
//
// A command name ("comm") holds at most 15 bytes on Linux, so every lookup by
// name compares only the first 15 bytes of a longer name.
#include <sys/types.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "sys/ProcFiles.h"

namespace qv {

// How many bytes of a command name the kernel keeps.
inline constexpr size_t QVCommandNameLength = 15;

// One process of the table.
struct QVProcEntry {
    std::string comm; // command name, at most 15 bytes
    pid_t pid = 0;
    char state = '?';    // the state letter of /proc/<pid>/stat
    bool zombie = false; // state 'Z': exited, not yet reaped
    uid_t uid = 0;       // effective user id
};

// A process description from infoForAppsWithName.
struct QVProcInfo {
    uid_t uid = 0;
    pid_t pid = 0;
    std::string name; // the command name
};

// /proc/<pid>/stat, split at the command name, which may itself hold spaces
// and parentheses (it ends at the last ')').
struct QVProcStat {
    std::string comm;
    std::vector<std::string> fields; // the fields after the name, from the state on

    // The state letter (field 3): 'R', 'S', 'Z' (exited, not yet reaped), ...
    char state() const { return fields.empty() || fields[0].empty() ? '?' : fields[0][0]; }
    // A numeric field, numbered as proc(5) numbers them (14 utime, 22 starttime);
    // nullopt when it is missing or no number.
    std::optional<unsigned long long> number(size_t field) const;
};
std::optional<QVProcStat> QVParseProcStat(const std::string& text);
// nullopt when there is no such process (or we may not look at it).
std::optional<QVProcStat> QVReadProcStat(pid_t pid);

// The pids of every process of the system. Empty, with *err set to the errno
// (when given), when /proc can't be read.
std::vector<pid_t> QVProcessIds(int* err = nullptr);

// The process exists and has not exited (it is neither a zombie nor dead).
bool QVProcessAlive(pid_t pid);
// Its command name (/proc/<pid>/comm, at most 15 bytes); empty when there is no such process.
std::string QVProcessName(pid_t pid);
// The first live process whose argument vector is exactly `argv`; 0 when none.
pid_t QVFindProcessByArguments(const std::vector<std::string>& argv);

// Reads every process of the system into *procList (cleared first). Returns 0,
// or the errno that kept /proc from being read (then *procList is empty).
// Processes that end while the table is read are left out.
int GetBSDProcessList(std::vector<QVProcEntry>* procList);

// True when the command name of `pid` contains any of `names`; *outIndex, when
// given, is set to the index of the last name that matched. False when there is
// no such process.
bool pidIsApp(pid_t pid, const std::vector<std::string>& names, int* outIndex);

// The first live process whose command name equals `name` (cut to 15 bytes);
// with `ours`, only processes of our real user id. -1 when there is none.
pid_t pidForApp(const std::string& name, bool ours);

// A name to show for the process: its command name, or, when that was cut to 15
// bytes, the full program name it was cut from. nullopt when there is no such process.
std::optional<std::string> appForPid(pid_t pid);

// Every live process whose command name contains `name` (cut to 15 bytes).
// Empty on failure, and for an empty name.
std::vector<QVProcInfo> infoForAppsWithName(const std::string& name);

// The first process whose command name contains `name` (cut to 15 bytes): 0 with
// its pid and uid in the outputs (left unwritten when that process is a zombie),
// -1 when there is none, or the errno of the table.
int infoForApp(const std::string& name, pid_t* outPid, uid_t* outUid);

// Stops every process that infoForAppsWithName finds: with a `delay` (in
// microseconds) it first gets SIGTERM and that long to finish, then SIGKILL in
// any case. True when a process was handled. Our own process is never touched.
bool killProcsNamed(const std::string& name, useconds_t delay);

// The same for the first such process of our user only. Its pid, 0 when none.
pid_t killOurProcNamed(const std::string& name, useconds_t delay);

// Sends `sig` to the first such process (with `ours`, the first of our user).
// Its pid, 0 when none. Named signalProc, as `signal` is the C library's.
pid_t signalProc(int sig, const std::string& name, bool ours);

} // namespace qv
