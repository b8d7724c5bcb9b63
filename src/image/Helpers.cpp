#include "image/Helpers.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <ctime>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "vault/PropertyList.h"
#include "vault/Value.h"

extern char** environ;

namespace qv::image {

// --------------------------------------------------------------- programs

std::string ProgramResult::summary() const {
    if (!started) return err.empty() ? "could not be started" : err;
    auto lastLine = [](const std::string& text) {
        std::string t = text;
        while (!t.empty() && (t.back() == '\n' || t.back() == ' ' || t.back() == '\r')) t.pop_back();
        size_t nl = t.find_last_of('\n');
        std::string line = nl == std::string::npos ? t : t.substr(nl + 1);
        std::replace(line.begin(), line.end(), '\t', ' ');
        return line;
    };
    std::string words = lastLine(err);
    if (words.empty()) words = lastLine(out);
    std::string how = exited ? QVFormat("exit status %d", status) : QVFormat("killed by signal %d", signal);
    return words.empty() ? how : words + " (" + how + ")";
}

ProgramResult runProgram(const std::string& path, const std::vector<std::string>& args, const std::string* input) {
    ProgramResult result;
    // Everything the child needs is built before fork.
    std::vector<std::string> argvStore{path};
    argvStore.insert(argvStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argvStore) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStore;
    for (char** e = environ; e && *e; ++e) {
        if (std::strncmp(*e, "LC_ALL=", 7) == 0 || std::strncmp(*e, "LANG=", 5) == 0) continue;
        envStore.emplace_back(*e);
    }
    envStore.emplace_back("LC_ALL=C");
    envStore.emplace_back("LANG=C");
    std::vector<char*> envp;
    for (auto& e : envStore) envp.push_back(e.data());
    envp.push_back(nullptr);

    int outPipe[2], errPipe[2], inPipe[2] = {-1, -1};
    if (::pipe2(outPipe, O_CLOEXEC) != 0) {
        result.err = std::strerror(errno);
        return result;
    }
    if (::pipe2(errPipe, O_CLOEXEC) != 0 || (input && ::pipe2(inPipe, O_CLOEXEC) != 0)) {
        result.err = std::strerror(errno);
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return result;
    }
    int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    pid_t pid = ::fork();
    if (pid < 0) {
        result.err = std::strerror(errno);
        for (int fd : {outPipe[0], outPipe[1], errPipe[0], errPipe[1], inPipe[0], inPipe[1], devNull})
            if (fd >= 0) ::close(fd);
        return result;
    }
    if (pid == 0) {
        ::dup2(input ? inPipe[0] : devNull, STDIN_FILENO);
        ::dup2(outPipe[1], STDOUT_FILENO);
        ::dup2(errPipe[1], STDERR_FILENO);
        ::syscall(SYS_close_range, 3u, ~0u, 0u);
        ::execve(path.c_str(), argv.data(), envp.data());
        const char msg[] = "cannot run the program\n";
        (void)!::write(STDERR_FILENO, msg, sizeof msg - 1);
        ::_exit(127);
    }
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    if (devNull >= 0) ::close(devNull);
    result.started = true;
    if (input) {
        ::close(inPipe[0]);
        // Small inputs only (commands for debugfs): they fit the pipe.
        size_t done = 0;
        while (done < input->size()) {
            ssize_t n = ::write(inPipe[1], input->data() + done, input->size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            done += size_t(n);
        }
        ::close(inPipe[1]);
    }
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    char buf[65536];
    while (open > 0) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
            ssize_t n = ::read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, size_t(n));
            } else if (n == 0 || errno != EINTR) {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (auto& f : fds)
        if (f.fd >= 0) ::close(f.fd);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) {
        result.exited = true;
        result.status = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (done()) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// --------------------------------------------------------------- mount table

namespace {

// Fields of mountinfo escape space, tab, newline and backslash as \ooo.
std::string unescapeMountField(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() && std::isdigit((unsigned char)s[i + 1]) &&
            std::isdigit((unsigned char)s[i + 2]) && std::isdigit((unsigned char)s[i + 3])) {
            out.push_back(char((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

std::string readFirstLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

} // namespace

std::vector<MountEntry> readMountTable() {
    std::vector<MountEntry> entries;
    std::ifstream in("/proc/self/mountinfo");
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::vector<std::string> words;
        for (std::string w; fields >> w;) words.push_back(w);
        auto dash = std::find(words.begin(), words.end(), "-");
        if (words.size() < 5 || dash == words.end() || dash + 2 >= words.end()) continue;
        MountEntry e;
        e.mountPoint = unescapeMountField(words[4]);
        e.fsType = *(dash + 1);
        e.source = unescapeMountField(*(dash + 2));
        entries.push_back(std::move(e));
    }
    return entries;
}

std::optional<MountEntry> mountAt(const std::string& path) {
    std::optional<MountEntry> found;
    for (auto& e : readMountTable())
        if (e.mountPoint == path) found = e;  // the last one is on top
    return found;
}

std::string loopBackingFile(const std::string& device) {
    const std::string name = device.substr(device.find_last_of('/') + 1);
    std::string file = readFirstLine("/sys/block/" + name + "/loop/backing_file");
    const std::string deleted = " (deleted)";
    if (file.size() > deleted.size() && file.compare(file.size() - deleted.size(), deleted.size(), deleted) == 0)
        file.resize(file.size() - deleted.size());
    return file;
}

std::vector<std::string> loopDevicesOf(const std::string& file) {
    std::vector<std::string> devices;
    DIR* dir = ::opendir("/sys/block");
    if (!dir) return devices;
    while (dirent* e = ::readdir(dir)) {
        if (std::strncmp(e->d_name, "loop", 4) != 0) continue;
        const std::string device = std::string("/dev/") + e->d_name;
        if (loopBackingFile(device) == file) devices.push_back(device);
    }
    ::closedir(dir);
    return devices;
}

// --------------------------------------------------------------- processes

bool processAlive(pid_t pid) {
    if (pid <= 0) return false;
    std::string stat = readFirstLine("/proc/" + std::to_string(pid) + "/stat");
    if (stat.empty()) return false;
    size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size()) return false;
    const char state = stat[close + 2];
    return state != 'Z' && state != 'X';
}

std::string processName(pid_t pid) { return readFirstLine("/proc/" + std::to_string(pid) + "/comm"); }

pid_t findProcessByArguments(const std::vector<std::string>& argv) {
    std::string wanted;
    for (const auto& a : argv) {
        wanted += a;
        wanted.push_back('\0');
    }
    DIR* proc = ::opendir("/proc");
    if (!proc) return 0;
    pid_t found = 0;
    while (dirent* e = ::readdir(proc)) {
        char* end = nullptr;
        long pid = std::strtol(e->d_name, &end, 10);
        if (pid <= 0 || *end) continue;
        std::ifstream in(std::string("/proc/") + e->d_name + "/cmdline", std::ios::binary);
        std::string cmdline((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (cmdline == wanted && processAlive(pid_t(pid))) {
            found = pid_t(pid);
            break;
        }
    }
    ::closedir(proc);
    return found;
}

// --------------------------------------------------------------- runtime directory

namespace {

// An existing directory of ours that nobody else can enter.
bool privateDirectory(const std::string& path, bool create) {
    if (create && ::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid()) return false;
    if ((st.st_mode & 077) != 0 && ::chmod(path.c_str(), 0700) != 0) return false;
    return true;
}

bool usableBase(const std::string& path) {
    struct stat st {};
    return !path.empty() && path[0] == '/' && ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) &&
           st.st_uid == ::geteuid() && ::access(path.c_str(), W_OK | X_OK) == 0;
}

} // namespace

bool runtimeBase(std::string* base, QVError* error) {
    std::string root;
    const char* xdg = std::getenv("XDG_RUNTIME_DIR");
    const std::string userRun = "/run/user/" + std::to_string(::geteuid());
    std::string candidate;
    if (xdg && usableBase(xdg)) {
        candidate = std::string(xdg) + "/qv-image";
    } else if (usableBase(userRun)) {
        candidate = userRun + "/qv-image";
    } else {
        candidate = "/tmp/qv-image-" + std::to_string(::geteuid());
    }
    if (!privateDirectory(candidate, true))
        return fail(error, QVImageExitFailure, "no private runtime directory at '" + candidate + "'");
    *base = candidate;
    return true;
}

bool writeAttachment(const Attachment& a, QVError* error) {
    Dict d;
    d["image"] = Value(a.image);
    d["dev-entry"] = Value(a.devEntry);
    d["mount-point"] = Value(a.mountPoint);
    d["layer"] = Value(a.layer);
    d["loop-device"] = Value(a.loopDevice);
    d["device-pid"] = Value(static_cast<long long>(a.devicePid));
    d["fs-pid"] = Value(static_cast<long long>(a.fsPid));
    auto xml = QVPropertyListToXML(Value::newDict(std::move(d)));
    QVError e;
    if (!xml || !QVWriteFileAtomically(a.dir + "/attachment.plist", *xml, &e, 0600))
        return failErrno(error, xml ? int(e.code) : EINVAL, "cannot record the attachment");
    return true;
}

std::optional<Attachment> readAttachment(const std::string& dir) {
    QVError e;
    auto bytes = QVReadFile(dir + "/attachment.plist", &e);
    if (!bytes) return std::nullopt;
    auto value = QVPropertyListFromData(*bytes, nullptr);
    DictRef d = value ? value->toDict() : nullptr;
    if (!d) return std::nullopt;
    Attachment a;
    a.dir = dir;
    a.image = QVDictGet(*d, "image").toString();
    a.devEntry = QVDictGet(*d, "dev-entry").toString();
    a.mountPoint = QVDictGet(*d, "mount-point").toString();
    a.layer = QVDictGet(*d, "layer").toString();
    a.loopDevice = QVDictGet(*d, "loop-device").toString();
    a.devicePid = pid_t(QVDictGet(*d, "device-pid").toInt());
    a.fsPid = pid_t(QVDictGet(*d, "fs-pid").toInt());
    return a;
}

std::vector<std::string> attachmentDirs(const std::string& base) {
    std::vector<std::string> dirs;
    DIR* dir = ::opendir(base.c_str());
    if (!dir) return dirs;
    while (dirent* e = ::readdir(dir))
        if (std::strncmp(e->d_name, "att-", 4) == 0) dirs.push_back(base + "/" + e->d_name);
    ::closedir(dir);
    std::sort(dirs.begin(), dirs.end());
    return dirs;
}

namespace {

void lazyUnmount(const std::string& path, bool fuse) {
    if (::geteuid() == 0) {
        ::umount2(path.c_str(), MNT_DETACH);
        return;
    }
    if (fuse) runProgram(kFusermount3, {"-u", "-z", "-q", path});
}

} // namespace

void removeAttachmentDir(const std::string& dir) {
    const std::string dev = deviceDirOf(dir);
    if (mountAt(dev)) lazyUnmount(dev, true);
    ::unlink((dir + "/attachment.plist").c_str());
    ::unlink(lockFileOf(dir).c_str());
    ::unlink(flushLockOf(dir).c_str());
    ::rmdir(dev.c_str());
    ::rmdir(dir.c_str());
}

void sweepStaleAttachments(const std::string& base) {
    for (const auto& dir : attachmentDirs(base)) {
        int fd = ::open(lockFileOf(dir).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0) {
            // A directory without its lock is being set up, or was left half-made:
            // only an old one is swept.
            struct stat st {};
            if (::stat(dir.c_str(), &st) == 0 && ::time(nullptr) - st.st_mtime > 120) removeAttachmentDir(dir);
            continue;
        }
        const bool alive = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
        if (!alive) {
            // The device process died without cleaning up: its volume, if still
            // mounted, can only give I/O errors now.
            if (auto a = readAttachment(dir)) {
                if (!a->mountPoint.empty()) {
                    if (auto m = mountAt(a->mountPoint)) {
                        const bool ours = m->source == a->devEntry ||
                                          (!a->loopDevice.empty() && m->source == a->loopDevice);
                        if (ours) lazyUnmount(a->mountPoint, m->fsType.rfind("fuse", 0) == 0);
                    }
                }
                if (!a->loopDevice.empty() && loopBackingFile(a->loopDevice) == a->devEntry && ::geteuid() == 0)
                    runProgram(kLosetup, {"-d", a->loopDevice});
            }
            removeAttachmentDir(dir);
        }
        ::close(fd);
    }
}

} // namespace qv::image
