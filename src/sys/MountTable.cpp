#include "sys/MountTable.h"

#include <libmount/libmount.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "toolkit/Log.h"

namespace qv {
namespace {

struct TableFree {
    void operator()(libmnt_table* t) const { mnt_unref_table(t); }
};
struct IterFree {
    void operator()(libmnt_iter* i) const { mnt_free_iter(i); }
};
using Table = std::unique_ptr<libmnt_table, TableFree>;

std::string text(const char* s) { return s ? s : ""; }

QVMountEntry entryOf(libmnt_fs* fs) {
    QVMountEntry e;
    const dev_t dev = mnt_fs_get_devno(fs);
    e.major = major(dev);
    e.minor = minor(dev);
    e.root = text(mnt_fs_get_root(fs));
    e.mountPoint = text(mnt_fs_get_target(fs));
    e.options = text(mnt_fs_get_vfs_options(fs));
    e.fsType = text(mnt_fs_get_fstype(fs));
    e.source = text(mnt_fs_get_source(fs));
    e.superOptions = text(mnt_fs_get_fs_options(fs));
    return e;
}

// The last entry of `table` on `mountPoint`: the one on top.
libmnt_fs* topAt(libmnt_table* table, const std::string& mountPoint) {
    std::unique_ptr<libmnt_iter, IterFree> iter(mnt_new_iter(MNT_ITER_BACKWARD));
    if (!iter) return nullptr;
    libmnt_fs* fs = nullptr;
    while (mnt_table_next_fs(table, iter.get(), &fs) == 0)
        if (text(mnt_fs_get_target(fs)) == mountPoint) return fs;
    return nullptr;
}

} // namespace

std::vector<QVMountEntry> QVReadMountTableFile(const std::string& path, int* err) {
    std::vector<QVMountEntry> entries;
    Table table(mnt_new_table());
    if (!table) {
        if (err) *err = ENOMEM;
        return entries;
    }
    if (const int rc = mnt_table_parse_file(table.get(), path.c_str()); rc != 0) {
        if (err) *err = rc < 0 ? -rc : EINVAL;
        return entries;
    }
    std::unique_ptr<libmnt_iter, IterFree> iter(mnt_new_iter(MNT_ITER_FORWARD));
    libmnt_fs* fs = nullptr;
    while (iter && mnt_table_next_fs(table.get(), iter.get(), &fs) == 0) entries.push_back(entryOf(fs));
    if (err) *err = 0;
    return entries;
}

std::vector<QVMountEntry> QVReadMountTable() {
    int err = 0;
    std::vector<QVMountEntry> entries = QVReadMountTableFile("/proc/self/mountinfo", &err);
    if (err != 0) QV_LOG_ERROR(QVFormat("can't read /proc/self/mountinfo: %s", std::strerror(err)));
    return entries;
}

std::optional<QVMountEntry> QVMountAt(const std::string& mountPoint) {
    std::optional<QVMountEntry> found;
    for (QVMountEntry& entry : QVReadMountTable())
        if (entry.mountPoint == mountPoint) found = std::move(entry);
    return found;
}

std::string QVUserMountOptions(const std::string& mountPoint) {
    Table table(mnt_new_table());
    // The kernel's table with mount(8)'s own options merged into its entries.
    if (!table || mnt_table_parse_mtab(table.get(), nullptr) != 0) return {};
    libmnt_fs* fs = topAt(table.get(), mountPoint);
    return fs ? text(mnt_fs_get_user_options(fs)) : std::string();
}

} // namespace qv
