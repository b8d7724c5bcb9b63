#include "image/DiskFileSystem.h"

#include <linux/falloc.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "toolkit/Log.h"

namespace qv::image {

namespace {

constexpr fuse_ino_t kDiskInode = 2;
constexpr const char* kDiskName = "disk";

DiskServer& server(fuse_req_t req) { return *static_cast<DiskServer*>(fuse_req_userdata(req)); }

// Both entries belong to the user who attached, and only to him.
struct stat ownAttributes(const DiskServer& s, fuse_ino_t ino, mode_t mode, nlink_t links) {
    struct stat st {};
    st.st_ino = ino;
    st.st_mode = mode;
    st.st_nlink = links;
    st.st_uid = s.uid;
    st.st_gid = s.gid;
    return st;
}

struct stat diskAttributes(const DiskServer& s) {
    struct stat st = ownAttributes(s, kDiskInode, S_IFREG | 0600, 1);
    st.st_size = off_t(s.store->size());
    st.st_blksize = kSectorSize;
    st.st_blocks = blkcnt_t(s.store->size() / 512);
    return st;
}

struct stat rootAttributes(const DiskServer& s) {
    return ownAttributes(s, FUSE_ROOT_ID, S_IFDIR | 0700, 2);
}

void opInit(void* userdata, fuse_conn_info* conn) {
    (void)userdata;
    conn->max_write = kMaxRequest;
    conn->max_read = kMaxRequest;
    conn->max_readahead = kMaxRequest;
    // Plain reads and writes: the splice paths gain nothing for data that is
    // encrypted in our own buffers anyway.
    conn->want &= ~(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE);
    // The file systems on the disk read and write it in blocks of 4 KiB; a round
    // trip to this process for each would cost more than the cipher. With the
    // kernel's write-back cache their small writes land in the page cache and
    // reach us gathered into large requests, and read-ahead gathers the reads.
    // fsync of the disk still waits for every dirty page and then for the bands.
    if (conn->capable & FUSE_CAP_WRITEBACK_CACHE) conn->want |= FUSE_CAP_WRITEBACK_CACHE;
    if (conn->capable & FUSE_CAP_ASYNC_READ) conn->want |= FUSE_CAP_ASYNC_READ;
}

void opDestroy(void* userdata) {
    auto* s = static_cast<DiskServer*>(userdata);
    if (int err = s->store->sync()) QV_LOG_ERROR(QVFormat("final sync failed: %s", std::strerror(err)));
}

void opLookup(fuse_req_t req, fuse_ino_t parent, const char* name) {
    DiskServer& s = server(req);
    if (parent != FUSE_ROOT_ID || std::strcmp(name, kDiskName) != 0) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    fuse_entry_param e{};
    e.ino = kDiskInode;
    e.attr = diskAttributes(s);
    e.attr_timeout = 1.0;
    e.entry_timeout = 1.0;
    fuse_reply_entry(req, &e);
}

void opGetattr(fuse_req_t req, fuse_ino_t ino, fuse_file_info*) {
    DiskServer& s = server(req);
    if (ino == FUSE_ROOT_ID) {
        struct stat st = rootAttributes(s);
        fuse_reply_attr(req, &st, 1.0);
    } else if (ino == kDiskInode) {
        struct stat st = diskAttributes(s);
        fuse_reply_attr(req, &st, 1.0);
    } else {
        fuse_reply_err(req, ENOENT);
    }
}

void opSetattr(fuse_req_t req, fuse_ino_t ino, struct stat* attr, int toSet, fuse_file_info*) {
    DiskServer& s = server(req);
    if (ino != kDiskInode) {
        fuse_reply_err(req, EPERM);
        return;
    }
    // The disk has the image's size; only resize changes it, offline.
    if ((toSet & FUSE_SET_ATTR_SIZE) && uint64_t(attr->st_size) != s.store->size()) {
        fuse_reply_err(req, EPERM);
        return;
    }
    struct stat st = diskAttributes(s);
    fuse_reply_attr(req, &st, 1.0);
}

void opOpen(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
    DiskServer& s = server(req);
    if (ino != kDiskInode) {
        fuse_reply_err(req, EISDIR);
        return;
    }
    {
        std::lock_guard<std::mutex> g(s.mutex);
        if (s.shuttingDown) {
            fuse_reply_err(req, ENODEV);
            return;
        }
        ++s.openCount;
    }
    // The disk goes through the page cache (see opInit). Nobody but this process
    // changes the bands while it serves them, so what is cached stays true
    // from one open to the next.
    fi->direct_io = 0;
    fi->keep_cache = 1;
    if (fuse_reply_open(req, fi) != 0) {
        std::lock_guard<std::mutex> g(s.mutex);
        --s.openCount;
        wakeControl(s);
    }
}

void opRelease(fuse_req_t req, fuse_ino_t, fuse_file_info*) {
    DiskServer& s = server(req);
    {
        std::lock_guard<std::mutex> g(s.mutex);
        if (s.openCount) --s.openCount;
    }
    wakeControl(s);
    fuse_reply_err(req, 0);
}

void opRead(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info*) {
    DiskServer& s = server(req);
    if (ino != kDiskInode || off < 0) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    const uint64_t total = s.store->size();
    if (uint64_t(off) >= total) {
        fuse_reply_buf(req, nullptr, 0);
        return;
    }
    const size_t n = size_t(std::min<uint64_t>(size, total - uint64_t(off)));
    // Uninitialised on purpose: the store fills all n bytes.
    thread_local std::unique_ptr<uint8_t[]> buffer;
    thread_local size_t capacity = 0;
    if (capacity < n) {
        buffer = std::make_unique_for_overwrite<uint8_t[]>(n);
        capacity = n;
    }
    if (int err = s.disk->read(uint64_t(off), n, buffer.get())) {
        QV_LOG_ERROR(
            QVFormat("read of %zu bytes at %lld failed: %s", n, static_cast<long long>(off), std::strerror(err)));
        fuse_reply_err(req, err);
        return;
    }
    fuse_reply_buf(req, reinterpret_cast<const char*>(buffer.get()), n);
    s.disk->readAheadOf(uint64_t(off), n);
}

void opWrite(fuse_req_t req, fuse_ino_t ino, const char* buf, size_t size, off_t off, fuse_file_info*) {
    DiskServer& s = server(req);
    if (ino != kDiskInode || off < 0) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    const uint64_t total = s.store->size();
    if (uint64_t(off) >= total) {
        fuse_reply_err(req, size ? ENOSPC : 0);
        return;
    }
    const size_t n = size_t(std::min<uint64_t>(size, total - uint64_t(off)));
    if (int err = s.disk->write(uint64_t(off), n, reinterpret_cast<const uint8_t*>(buf))) {
        QV_LOG_ERROR(
            QVFormat("write of %zu bytes at %lld failed: %s", n, static_cast<long long>(off), std::strerror(err)));
        s.changeFailed = true;
        fuse_reply_err(req, err);
        return;
    }
    fuse_reply_write(req, n);
}

void opFsync(fuse_req_t req, fuse_ino_t, int, fuse_file_info*) {
    DiskServer& s = server(req);
    int err = s.store->sync();
    if (err) {
        QV_LOG_ERROR(QVFormat("sync failed: %s", std::strerror(err)));
        s.changeFailed = true;
    }
    fuse_reply_err(req, err);
}

void opFsyncdir(fuse_req_t req, fuse_ino_t, int, fuse_file_info*) { fuse_reply_err(req, 0); }

void opFlush(fuse_req_t req, fuse_ino_t, fuse_file_info*) { fuse_reply_err(req, 0); }

void opFallocate(fuse_req_t req, fuse_ino_t ino, int mode, off_t offset, off_t length, fuse_file_info*) {
    DiskServer& s = server(req);
    if (ino != kDiskInode || offset < 0 || length <= 0) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    const bool punch = (mode & FALLOC_FL_PUNCH_HOLE) && (mode & FALLOC_FL_KEEP_SIZE);
    const bool zero = (mode & FALLOC_FL_ZERO_RANGE) != 0;
    if (!punch && !zero) {
        // Space can't be reserved ahead in sparse bands.
        fuse_reply_err(req, EOPNOTSUPP);
        return;
    }
    const uint64_t total = s.store->size();
    if (uint64_t(offset) >= total) {
        fuse_reply_err(req, 0);
        return;
    }
    const uint64_t n = std::min<uint64_t>(uint64_t(length), total - uint64_t(offset));
    int err = s.disk->discard(uint64_t(offset), n);
    if (err) {
        QV_LOG_ERROR(QVFormat("discard failed: %s", std::strerror(err)));
        s.changeFailed = true;
    }
    fuse_reply_err(req, err);
}

void opOpendir(fuse_req_t req, fuse_ino_t ino, fuse_file_info* fi) {
    if (ino != FUSE_ROOT_ID) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    fuse_reply_open(req, fi);
}

void opReaddir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info*) {
    DiskServer& s = server(req);
    if (ino != FUSE_ROOT_ID) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    std::vector<char> buf(size);
    size_t used = 0;
    struct Entry {
        const char* name;
        struct stat st;
    };
    const Entry entries[] = {{".", rootAttributes(s)}, {"..", rootAttributes(s)}, {kDiskName, diskAttributes(s)}};
    for (off_t i = off; i < off_t(sizeof entries / sizeof entries[0]); ++i) {
        const size_t need =
            fuse_add_direntry(req, buf.data() + used, size - used, entries[i].name, &entries[i].st, i + 1);
        if (need > size - used) break;
        used += need;
    }
    fuse_reply_buf(req, buf.data(), used);
}

void opReleasedir(fuse_req_t req, fuse_ino_t, fuse_file_info*) { fuse_reply_err(req, 0); }

void opStatfs(fuse_req_t req, fuse_ino_t) {
    DiskServer& s = server(req);
    struct statvfs st {};
    ::fstatvfs(s.bandsFd, &st);
    st.f_namemax = 255;
    fuse_reply_statfs(req, &st);
}

} // namespace

void wakeControl(DiskServer& s) {
    uint64_t one = 1;
    (void)!::write(s.wakeFd, &one, sizeof one);
}

fuse_lowlevel_ops diskOperations() {
    fuse_lowlevel_ops ops{};
    ops.init = opInit;
    ops.destroy = opDestroy;
    ops.lookup = opLookup;
    ops.getattr = opGetattr;
    ops.setattr = opSetattr;
    ops.open = opOpen;
    ops.release = opRelease;
    ops.read = opRead;
    ops.write = opWrite;
    ops.fsync = opFsync;
    ops.fsyncdir = opFsyncdir;
    ops.flush = opFlush;
    ops.fallocate = opFallocate;
    ops.opendir = opOpendir;
    ops.readdir = opReaddir;
    ops.releasedir = opReleasedir;
    ops.statfs = opStatfs;
    return ops;
}

} // namespace qv::image
