#pragma once
// Notices of volumes: the kernel marks /proc/self/mountinfo with POLLPRI (and
// POLLERR) whenever anything mounts or unmounts in this process's namespace.
// The watcher waits for that mark on the event loop of the thread that makes it
// and reports the mount points that came and went since the last look.
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "sys/UniqueFd.h"

class QSocketNotifier;

namespace qv {

struct QVMountChanges {
    std::vector<std::string> mounted;   // sorted
    std::vector<std::string> unmounted; // sorted
    bool empty() const { return mounted.empty() && unmounted.empty(); }
};

// The mount points of the table, once each.
std::set<std::string> QVMountPointsOfTable(const std::string& mountinfoPath = "/proc/self/mountinfo");

// What differs between two sets of mount points.
QVMountChanges QVDiffMountPoints(const std::set<std::string>& before, const std::set<std::string>& after);

class QVMountWatcher {
public:
    using Handler = std::function<void(const QVMountChanges&)>;
    explicit QVMountWatcher(Handler handler);
    ~QVMountWatcher();
    QVMountWatcher(const QVMountWatcher&) = delete;
    QVMountWatcher& operator=(const QVMountWatcher&) = delete;

    // Opens the table and starts watching it; false (logged) when it can't be
    // opened. Needs the calling thread's event loop.
    bool start(const std::string& mountinfoPath = "/proc/self/mountinfo");
    // Reads the table again and reports what changed, if anything. Called on
    // every mark of the kernel; callable by hand.
    void check();

private:
    Handler handler_;
    std::string path_;
    UniqueFd fd_;
    std::unique_ptr<QSocketNotifier> notifier_;
    std::set<std::string> known_;
};

} // namespace qv
