// The device process's life: started by fork (as a grandchild in a session of
// its own for attach), it serves the disk through FUSE (DiskFileSystem.h) until
// it is asked to stop and nobody has the disk open, then makes everything
// durable and removes its attachment directory.
#include "image/DeviceProcess.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "image/DiskFileSystem.h"
#include "image/FileSystemMark.h"
#include "image/Helpers.h"
#include "image/VolumeFlusher.h"
#include "sys/ProcList.h"
#include "sys/UniqueFd.h"
#include "toolkit/Log.h"
#include "toolkit/WriteAll.h"

namespace qv::image {

namespace {

// Enough for the kernel's queue of background requests (12 by default) and a few reads.
constexpr unsigned kWorkerThreads = 12;

void unmountDeviceDir(const std::string& dir) {
    if (::geteuid() == 0) {
        ::umount2(dir.c_str(), MNT_DETACH);
    } else {
        runProgram(kFusermount3, {"-u", "-z", "-q", dir});
    }
}

// Waits for stop requests (signals) and for the disk to be closed; once asked
// and unused, makes everything durable and ends the session.
void controlLoop(DiskServer& s, int signalFd) {
    pollfd fds[2] = {{signalFd, POLLIN, 0}, {s.wakeFd, POLLIN, 0}};
    for (;;) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[0].revents & POLLIN) {
            signalfd_siginfo info{};
            if (::read(signalFd, &info, sizeof info) == sizeof info) {
                std::lock_guard<std::mutex> g(s.mutex);
                s.stopWhenUnused = true;
            }
        }
        if (fds[1].revents & POLLIN) {
            uint64_t n;
            (void)!::read(s.wakeFd, &n, sizeof n);
        }
        {
            std::lock_guard<std::mutex> g(s.mutex);
            if (s.shuttingDown) return;
            if (!s.stopWhenUnused || s.openCount != 0) continue;
            s.shuttingDown = true;
        }
        // The file system has let go of the disk and wrote its last superblock:
        // after a refused change, the next attach must check it before mounting.
        if (s.changeFailed) {
            if (int err = markFileSystemForCheck(*s.disk))
                QV_LOG_ERROR(QVFormat("cannot mark the file system for a check: %s", std::strerror(err)));
            else
                QV_LOG_WARN("a change of the disk failed: the file system is marked for a check");
        }
        if (int err = s.store->sync()) QV_LOG_ERROR(QVFormat("sync before stopping failed: %s", std::strerror(err)));
        fuse_session_exit(s.session);
        // Wakes the request threads: their reads of the session end.
        unmountDeviceDir(s.deviceDir);
        return;
    }
}

// Descriptors the device process keeps; every other one is closed.
void closeOtherDescriptors(const std::vector<int>& keep) {
    std::vector<int> open;
    if (DIR* d = ::opendir("/proc/self/fd")) {
        const int own = ::dirfd(d);
        while (dirent* e = ::readdir(d)) {
            if (e->d_name[0] == '.') continue;
            int fd = std::atoi(e->d_name);
            if (fd > 2 && fd != own) open.push_back(fd);
        }
        ::closedir(d);
    }
    for (int fd : open)
        if (std::find(keep.begin(), keep.end(), fd) == keep.end()) ::close(fd);
}

void report(int pipeFd, const std::string& message) { QVWriteAll(pipeFd, message); }

// The body of the device process. Never returns.
[[noreturn]] void serve(ImageBundle& image, SecureBytes& key, const DeviceOptions& options, int lockFd, int pipeFd) {
    int devNull = ::open("/dev/null", O_RDWR);
    if (devNull >= 0) {
        ::dup2(devNull, STDIN_FILENO);
        ::dup2(devNull, STDOUT_FILENO);
        ::dup2(devNull, STDERR_FILENO);
        if (devNull > 2) ::close(devNull);
    }
    closeOtherDescriptors({image.directoryFd(), image.bandsFd(), lockFd, pipeFd});
    if (::chdir("/") != 0) {
        report(pipeFd, "Ecannot change to /");
        ::_exit(1);
    }
    ::umask(077);
    // Nobody may read the key out of this process.
    ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
    struct rlimit rl {};
    if (::getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &rl);
    }
    ::signal(SIGPIPE, SIG_IGN);
    sigset_t stops;
    sigemptyset(&stops);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&stops, sig);
    // Blocked before any thread exists, so that every thread inherits it and
    // only the signal descriptor sees them.
    ::pthread_sigmask(SIG_BLOCK, &stops, nullptr);
    const int signalFd = ::signalfd(-1, &stops, SFD_CLOEXEC);

    DiskServer s;
    s.deviceDir = deviceDirOf(options.attachmentDir);
    s.uid = ::geteuid();
    s.gid = ::getegid();
    s.bandsFd = image.bandsFd();
    s.wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    s.store = std::make_unique<BandStore>(image.bandsFd(), options.size ? options.size : image.info().size,
                                          image.info().encryption, key.data());
    s.disk = std::make_unique<ReadAhead>(*s.store);
    key.clear();
    if (signalFd < 0 || s.wakeFd < 0) {
        report(pipeFd, "Ecannot set up the device process");
        ::_exit(1);
    }

    const std::string mountOptions = QVFormat("fsname=qv-image,subtype=qv-image,max_read=%u", kMaxRequest);
    std::vector<std::string> words = {"qv-image", "-o", mountOptions};
    std::vector<char*> argv;
    for (auto& w : words) argv.push_back(w.data());
    fuse_args args = FUSE_ARGS_INIT(int(argv.size()), argv.data());
    const fuse_lowlevel_ops ops = diskOperations();
    s.session = fuse_session_new(&args, &ops, sizeof ops, &s);
    if (!s.session) {
        report(pipeFd, "Ecannot start a FUSE session");
        ::_exit(1);
    }
    if (fuse_session_mount(s.session, s.deviceDir.c_str()) != 0) {
        report(pipeFd, "Ecannot mount the disk (is /dev/fuse usable?)");
        ::_exit(1);
    }
    report(pipeFd, "OK");
    ::close(pipeFd);

    std::thread control(controlLoop, std::ref(s), signalFd);
    // Only an attached volume is mounted through fuse2fs and lives long.
    std::optional<VolumeFlusher> flusher;
    if (options.detached) flusher.emplace(options.attachmentDir);
    fuse_loop_config* config = fuse_loop_cfg_create();
    // Workers stay once started: a worker that ends takes its 1 MiB request
    // buffer and its cipher scratch with it, and the kernel's bursts of write-back
    // requests would have the next one allocate and fault them in again.
    fuse_loop_cfg_set_max_threads(config, kWorkerThreads);
    fuse_loop_cfg_set_idle_threads(config, kWorkerThreads);
    fuse_session_loop_mt(s.session, config);
    fuse_loop_cfg_destroy(config);
    flusher.reset();
    {
        std::lock_guard<std::mutex> g(s.mutex);
        if (!s.shuttingDown) {
            // The session ended from outside (the mount was taken away).
            s.shuttingDown = true;
            s.stopWhenUnused = true;
        }
    }
    wakeControl(s);
    control.join();
    int status = 0;
    if (int err = s.store->sync()) {
        QV_LOG_ERROR(QVFormat("final sync failed: %s", std::strerror(err)));
        status = 1;
    }
    fuse_session_unmount(s.session);
    fuse_session_destroy(s.session);
    s.disk.reset();
    s.store.reset();
    removeAttachmentDir(options.attachmentDir);
    ::_exit(status);
}

} // namespace

bool makeAttachmentDir(const std::string& base, std::string* dir, UniqueFd* lock, QVError* error) {
    std::string tmpl = base + "/att-XXXXXX";
    if (!::mkdtemp(tmpl.data())) return failErrno(error, errno, "cannot make a runtime directory in '" + base + "'");
    UniqueFd fd(::open(lockFileOf(tmpl).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd || ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 || ::mkdir(deviceDirOf(tmpl).c_str(), 0700) != 0) {
        const int err = errno;
        fd.reset();
        removeAttachmentDir(tmpl);
        return failErrno(error, err, "cannot set up the runtime directory '" + tmpl + "'");
    }
    *dir = tmpl;
    *lock = std::move(fd);
    return true;
}

bool startDeviceServer(ImageBundle& image, SecureBytes& key, const DeviceOptions& options, int lockFd, pid_t* pid,
                       QVError* error) {
    // The device process tells through `report` that it serves the disk ("OK")
    // or why it could not ("E<why>"); a detached one's pid comes from the child
    // in between through `pidPipe`.
    UniqueFd reportRead, reportWrite, pidRead, pidWrite;
    if (!QVMakePipe(reportRead, reportWrite) || (options.detached && !QVMakePipe(pidRead, pidWrite))) {
        const int err = errno;
        key.clear();
        return failErrno(error, err, "cannot start the device process");
    }
    const pid_t parent = ::getpid();
    pid_t child = ::fork();
    if (child < 0) {
        const int err = errno;
        key.clear();
        return failErrno(error, err, "cannot start the device process");
    }
    if (child == 0) {
        reportRead.reset();
        if (options.detached) {
            // A session of its own, and a grandchild of the caller so that it is
            // nobody's child once the caller is gone.
            pidRead.reset();
            ::setsid();
            pid_t grandchild = ::fork();
            if (grandchild != 0) {
                QVWriteAll(pidWrite.get(), &grandchild, sizeof grandchild);
                ::_exit(grandchild < 0 ? 1 : 0);
            }
            pidWrite.reset();
        } else {
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (::getppid() != parent) ::_exit(1);
        }
        serve(image, key, options, lockFd, reportWrite.get());
    }
    // The key lives on in the device process only.
    key.clear();
    reportWrite.reset();
    pid_t server = child;
    if (options.detached) {
        pidWrite.reset();
        pid_t grandchild = -1;
        if (::read(pidRead.get(), &grandchild, sizeof grandchild) != sizeof grandchild) grandchild = -1;
        pidRead.reset();
        int status = 0;
        while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
        server = grandchild;
    }
    std::string message;
    char buf[256];
    for (;;) {
        ssize_t n = ::read(reportRead.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        message.append(buf, size_t(n));
    }
    reportRead.reset();
    if (message != "OK" || server <= 0) {
        if (!options.detached) {
            int status = 0;
            ::waitpid(child, &status, 0);
        }
        return fail(error, QVImageExitFailure,
                    message.size() > 1 && message[0] == 'E' ? message.substr(1) : "the device process did not start");
    }
    *pid = server;
    return true;
}

bool requestDeviceStop(pid_t pid) { return pid > 0 && ::kill(pid, SIGTERM) == 0; }

bool stopDeviceServer(const std::string& attachmentDir, pid_t pid, bool wait, std::chrono::milliseconds limit,
                      QVError* error) {
    // Opened before asking, so that the lock can be watched even after the
    // process has removed its directory.
    UniqueFd lock(::open(lockFileOf(attachmentDir).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    requestDeviceStop(pid);
    if (!wait) return true;
    bool ended = waitUntil(
        [&] {
            if (lock) return ::flock(lock.get(), LOCK_EX | LOCK_NB) == 0;
            return !QVProcessAlive(pid);
        },
        limit);
    lock.reset();
    // Our own child: reap it and learn whether its last sync worked.
    int status = 0;
    pid_t reaped = ::waitpid(pid, &status, ended ? 0 : WNOHANG);
    if (!ended)
        return fail(error, QVImageExitFailure, "the disk is still in use; it will be released once it is closed");
    if (reaped == pid && !(WIFEXITED(status) && WEXITSTATUS(status) == 0))
        return fail(error, QVImageExitFailure, "the disk could not be written out completely");
    return true;
}

} // namespace qv::image
