#include "sys/MountWatcher.h"

#include <QSocketNotifier>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "sys/MountTable.h"
#include "toolkit/Log.h"

namespace qv {

std::set<std::string> QVMountPointsOfTable(const std::string& mountinfoPath) {
    std::set<std::string> points;
    for (const QVMountEntry& entry : QVReadMountTableFile(mountinfoPath)) points.insert(entry.mountPoint);
    return points;
}

QVMountChanges QVDiffMountPoints(const std::set<std::string>& before, const std::set<std::string>& after) {
    QVMountChanges changes;
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(changes.mounted));
    std::set_difference(before.begin(), before.end(), after.begin(), after.end(),
                        std::back_inserter(changes.unmounted));
    return changes;
}

QVMountWatcher::QVMountWatcher(Handler handler) : handler_(std::move(handler)) {}

QVMountWatcher::~QVMountWatcher() = default;

bool QVMountWatcher::start(const std::string& mountinfoPath) {
    path_ = mountinfoPath;
    fd_.reset(::open(mountinfoPath.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd_) {
        QV_LOG_ERROR(QVFormat("can't watch %s: %s", mountinfoPath.c_str(), std::strerror(errno)));
        return false;
    }
    known_ = QVMountPointsOfTable(path_);
    // The kernel's mark is an exceptional condition (POLLPRI) on the open file.
    notifier_ = std::make_unique<QSocketNotifier>(fd_.get(), QSocketNotifier::Exception);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] { check(); });
    return true;
}

void QVMountWatcher::check() {
    if (fd_) {
        // The mark stays until the file is read again from its start.
        char buffer[4096];
        ::lseek(fd_.get(), 0, SEEK_SET);
        while (::read(fd_.get(), buffer, sizeof buffer) > 0) {
        }
    }
    std::set<std::string> now = QVMountPointsOfTable(path_);
    const QVMountChanges changes = QVDiffMountPoints(known_, now);
    known_ = std::move(now);
    if (!changes.empty() && handler_) handler_(changes);
}

} // namespace qv
