#include "image/ImageTestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "vault/PropertyList.h"

namespace fs = std::filesystem;

namespace qv::test {

namespace {

// A child that exits without reading its input must not kill the test with SIGPIPE.
const bool kIgnoreSigpipe = [] {
    ::signal(SIGPIPE, SIG_IGN);
    return true;
}();

using Clock = std::chrono::steady_clock;

bool startsWithPath(const std::string& path, const std::string& prefix) {
    if (path.compare(0, prefix.size(), prefix) != 0) return false;
    return path.size() == prefix.size() || path[prefix.size()] == '/';
}

std::string readSmallFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string readLink(const std::string& path) {
    char buf[4096];
    ssize_t n = ::readlink(path.c_str(), buf, sizeof buf - 1);
    if (n < 0) return {};
    return std::string(buf, size_t(n));
}

// Closes every descriptor from 3 up, in a freshly forked child.
void closeFrom3() { ::syscall(SYS_close_range, 3U, ~0U, 0U); }

std::string unescapeMountField(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() && std::isdigit((unsigned char)s[i + 1])) {
            out.push_back(char((s[i + 1] - '0') * 64 + (s[i + 2] - '0') * 8 + (s[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

} // namespace

// ---------------------------------------------------------------- processes

std::string CommandResult::describe() const {
    std::string how;
    if (timedOut)
        how = "timed out";
    else if (termSignal)
        how = "killed by signal " + std::to_string(termSignal);
    else
        how = "exit " + std::to_string(exitCode);
    if (pipesHeldOpen) how += " (output pipes held open after exit)";
    return how + "; stderr: [" + err + "] stdout: [" + out.substr(0, 400) + "]";
}

CommandResult runCommand(const std::vector<std::string>& argv, const CommandOptions& options) {
    CommandResult result;
    if (argv.empty()) throw std::invalid_argument("runCommand: empty argv");

    // Everything the child needs is prepared before fork: after it, only
    // async-signal-safe calls.
    std::vector<char*> cargv;
    for (const auto& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
    cargv.push_back(nullptr);

    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
        std::string entry(*e);
        std::string name = entry.substr(0, entry.find('='));
        bool replaced = std::any_of(options.env.begin(), options.env.end(),
                                    [&](const auto& kv) { return kv.first == name; });
        if (!replaced) envStrings.push_back(entry);
    }
    for (const auto& [k, v] : options.env) envStrings.push_back(k + "=" + v);
    std::vector<char*> cenv;
    for (auto& s : envStrings) cenv.push_back(s.data());
    cenv.push_back(nullptr);

    int inPipe[2] = {-1, -1}, outPipe[2], errPipe[2];
    if (options.input && ::pipe2(inPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    if (::pipe2(outPipe, O_CLOEXEC) != 0 || ::pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");

    const char* cwd = options.cwd.empty() ? nullptr : options.cwd.c_str();
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        int in = options.input ? inPipe[0] : ::open("/dev/null", O_RDONLY);
        ::dup2(in, 0);
        ::dup2(outPipe[1], 1);
        ::dup2(errPipe[1], 2);
        closeFrom3();
        if (cwd && ::chdir(cwd) != 0) ::_exit(126);
        ::execve(cargv[0], cargv.data(), cenv.data());
        ::execvpe(cargv[0], cargv.data(), cenv.data());
        ::_exit(127);
    }
    if (options.input) ::close(inPipe[0]);
    ::close(outPipe[1]);
    ::close(errPipe[1]);

    int inFd = options.input ? inPipe[1] : -1;
    size_t written = 0;
    if (inFd >= 0) {
        ::fcntl(inFd, F_SETFL, O_NONBLOCK);
        if (options.input->empty()) {
            ::close(inFd);
            inFd = -1;
        }
    }
    int outFd = outPipe[0], errFd = errPipe[0];
    const auto deadline = Clock::now() + std::chrono::seconds(options.timeoutSeconds);
    std::optional<Clock::time_point> exitedAt;
    int status = 0;

    while (outFd >= 0 || errFd >= 0 || !exitedAt) {
        if (!exitedAt) {
            pid_t w = ::waitpid(pid, &status, WNOHANG);
            if (w == pid) exitedAt = Clock::now();
        }
        if (exitedAt && (outFd >= 0 || errFd >= 0) && Clock::now() - *exitedAt > std::chrono::seconds(5)) {
            // Something the child started still holds our pipes.
            result.pipesHeldOpen = true;
            break;
        }
        if (Clock::now() > deadline) {
            result.timedOut = true;
            if (!exitedAt) {
                ::kill(pid, SIGKILL);
                ::waitpid(pid, &status, 0);
                exitedAt = Clock::now();
            }
            break;
        }
        std::vector<pollfd> fds;
        if (inFd >= 0) fds.push_back({inFd, POLLOUT, 0});
        if (outFd >= 0) fds.push_back({outFd, POLLIN, 0});
        if (errFd >= 0) fds.push_back({errFd, POLLIN, 0});
        if (fds.empty()) {
            ::usleep(20000);
            continue;
        }
        ::poll(fds.data(), fds.size(), 50);
        for (const auto& p : fds) {
            if (!p.revents) continue;
            if (p.fd == inFd) {
                ssize_t n = ::write(inFd, options.input->data() + written, options.input->size() - written);
                if (n > 0) written += size_t(n);
                if (n < 0 && errno != EAGAIN && errno != EINTR) written = options.input->size();
                if (written >= options.input->size()) {
                    ::close(inFd);
                    inFd = -1;
                }
                continue;
            }
            char buf[65536];
            ssize_t n = ::read(p.fd, buf, sizeof buf);
            if (n > 0) {
                (p.fd == outFd ? result.out : result.err).append(buf, size_t(n));
            } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                ::close(p.fd);
                (p.fd == outFd ? outFd : errFd) = -1;
            }
        }
    }
    if (inFd >= 0) ::close(inFd);
    if (outFd >= 0) ::close(outFd);
    if (errFd >= 0) ::close(errFd);
    if (WIFEXITED(status)) {
        result.exited = true;
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.termSignal = WTERMSIG(status);
    }
    return result;
}

pid_t startHolder(const std::vector<std::string>& argv, const std::string& cwd) {
    std::vector<char*> cargv;
    for (const auto& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
    cargv.push_back(nullptr);
    // stdin is a pipe we never write to, so that a shell waits for commands.
    int in[2];
    if (::pipe(in) != 0) throw std::runtime_error("pipe failed");
    pid_t pid = ::fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        ::dup2(in[0], 0);
        int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, 1);
        ::dup2(null, 2);
        closeFrom3();
        if (!cwd.empty() && ::chdir(cwd.c_str()) != 0) ::_exit(126);
        ::execvp(cargv[0], cargv.data());
        ::_exit(127);
    }
    ::close(in[0]);
    // The write end stays open (leaked on purpose until the test process ends)
    // so that the holder never sees end of file on its input.
    return pid;
}

void stopChild(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    int status;
    ::waitpid(pid, &status, 0);
}

std::string qvImageBinary() { return std::string(QV_BINARY_DIR) + "/src/qv-image"; }

std::string processName(pid_t pid) {
    std::string comm = readSmallFile("/proc/" + std::to_string(pid) + "/comm");
    while (!comm.empty() && comm.back() == '\n') comm.pop_back();
    return comm;
}

std::vector<pid_t> processesUsing(const std::string& prefix) {
    std::vector<pid_t> found;
    const pid_t self = ::getpid();
    DIR* proc = ::opendir("/proc");
    if (!proc) return found;
    while (dirent* e = ::readdir(proc)) {
        char* end;
        long pid = std::strtol(e->d_name, &end, 10);
        if (*end || pid <= 0 || pid == self) continue;
        const std::string base = std::string("/proc/") + e->d_name;
        bool uses = false;
        for (const char* part : {"/cmdline", "/environ"}) {
            std::string text = readSmallFile(base + part);
            if (text.find(prefix) != std::string::npos) uses = true;
        }
        for (const char* link : {"/cwd", "/root"})
            if (startsWithPath(readLink(base + link), prefix)) uses = true;
        if (!uses) {
            if (DIR* fds = ::opendir((base + "/fd").c_str())) {
                while (dirent* f = ::readdir(fds))
                    if (f->d_name[0] != '.' && startsWithPath(readLink(base + "/fd/" + f->d_name), prefix)) uses = true;
                ::closedir(fds);
            }
        }
        if (!uses && readSmallFile(base + "/maps").find(prefix) != std::string::npos) uses = true;
        if (uses) found.push_back(pid_t(pid));
    }
    ::closedir(proc);
    return found;
}

void killProcesses(const std::vector<pid_t>& pids) {
    for (pid_t p : pids) ::kill(p, SIGKILL);
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (pid_t p : pids) {
        while (Clock::now() < deadline) {
            int status;
            if (::waitpid(p, &status, WNOHANG) == p) break;  // our own child
            std::string stat = readSmallFile("/proc/" + std::to_string(p) + "/stat");
            size_t close = stat.rfind(')');
            if (stat.empty() || (close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'Z')) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
}

// ---------------------------------------------------------------- mounts

std::vector<MountEntry> mountTable() {
    std::vector<MountEntry> table;
    std::istringstream in(readSmallFile("/proc/self/mountinfo"));
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::vector<std::string> f;
        std::string w;
        while (fields >> w) f.push_back(w);
        auto dash = std::find(f.begin(), f.end(), "-");
        if (f.size() < 10 || dash == f.end() || dash + 3 > f.end()) continue;
        MountEntry m;
        m.mountPoint = unescapeMountField(f[4]);
        m.options = f[5] + "," + *(dash + 3);
        m.fsType = *(dash + 1);
        m.source = unescapeMountField(*(dash + 2));
        table.push_back(m);
    }
    return table;
}

std::optional<MountEntry> mountAt(const std::string& path) {
    std::string canonical = path;
    std::error_code ec;
    // Not fs::canonical: a dead FUSE mount can't be stat'ed, but the directories above it can.
    fs::path p(path);
    auto parent = fs::weakly_canonical(p.parent_path(), ec);
    if (!ec) canonical = (parent / p.filename()).string();
    std::optional<MountEntry> found;
    for (const auto& m : mountTable())
        if (m.mountPoint == canonical) found = m;  // the last one is on top
    return found;
}

bool isMountPoint(const std::string& path) { return mountAt(path).has_value(); }

void lazyUnmount(const std::string& path) {
    if (::geteuid() == 0) {
        if (::umount2(path.c_str(), MNT_DETACH) == 0) return;
    }
    CommandOptions o;
    o.timeoutSeconds = 20;
    runCommand({"fusermount3", "-uz", path}, o);
}

std::vector<std::string> loopDevicesBackedUnder(const std::string& prefix) {
    std::vector<std::string> devices;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator("/sys/block", ec)) {
        std::string name = e.path().filename().string();
        if (name.rfind("loop", 0) != 0) continue;
        std::string backing = readSmallFile(e.path().string() + "/loop/backing_file");
        while (!backing.empty() && backing.back() == '\n') backing.pop_back();
        if (!backing.empty() && backing.find(prefix) == 0) devices.push_back("/dev/" + name);
    }
    return devices;
}

// ---------------------------------------------------------------- files

std::string sha256Hex(const std::string& bytes) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned len = 0;
    EVP_Digest(bytes.data(), bytes.size(), md, &len, EVP_sha256(), nullptr);
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (unsigned i = 0; i < len; ++i) {
        out.push_back(hex[md[i] >> 4]);
        out.push_back(hex[md[i] & 15]);
    }
    return out;
}

std::string readFile(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
    std::string data;
    char buf[1 << 16];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int err = errno;
            ::close(fd);
            throw std::runtime_error("cannot read " + path + ": " + std::strerror(err));
        }
        if (n == 0) break;
        data.append(buf, size_t(n));
    }
    ::close(fd);
    return data;
}

std::string fileSha256(const std::string& path) { return sha256Hex(readFile(path)); }

void writeFileSynced(const std::string& path, const std::string& bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            int err = errno;
            ::close(fd);
            throw std::runtime_error("cannot write " + path + ": " + std::strerror(err));
        }
        done += size_t(n);
    }
    if (::fsync(fd) != 0) {
        int err = errno;
        ::close(fd);
        throw std::runtime_error("fsync failed on " + path + ": " + std::strerror(err));
    }
    ::close(fd);
    int dir = ::open(fs::path(path).parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
}

std::string patternBytes(uint64_t seed, size_t size) {
    std::string out(size, '\0');
    uint64_t x = seed * 0x9E3779B97F4A7C15ULL + 0x632BE59BD9B4E019ULL;
    for (size_t i = 0; i < size; i += 8) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        std::memcpy(out.data() + i, &x, std::min<size_t>(8, size - i));
    }
    return out;
}

TreeSnapshot snapshotTree(const std::string& root) {
    TreeSnapshot snap;
    std::error_code ec;
    struct stat st;
    if (::lstat(root.c_str(), &st) != 0) return snap;
    auto describe = [](const std::string& path, const struct stat& s) {
        std::string d = QVFormat("mode=%o size=%lld", unsigned(s.st_mode), (long long)s.st_size);
        if (S_ISREG(s.st_mode)) {
            d += QVFormat(" mtime=%lld.%09ld", (long long)s.st_mtim.tv_sec, s.st_mtim.tv_nsec);
            try {
                d += " sha256=" + fileSha256(path);
            } catch (const std::exception& e) {
                d += std::string(" unreadable: ") + e.what();
            }
        } else if (S_ISLNK(s.st_mode)) {
            d += " -> " + readLink(path);
        }
        return d;
    };
    snap["."] = describe(root, st);
    if (!S_ISDIR(st.st_mode)) return snap;
    for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec)) {
        const std::string path = it->path().string();
        if (::lstat(path.c_str(), &st) != 0) continue;
        snap[path.substr(root.size() + 1)] = describe(path, st);
    }
    return snap;
}

std::string diffSnapshots(const TreeSnapshot& before, const TreeSnapshot& after) {
    std::string diff;
    for (const auto& [name, d] : before) {
        auto it = after.find(name);
        if (it == after.end())
            diff += "removed " + name + "\n";
        else if (it->second != d)
            diff += "changed " + name + ": " + d + " => " + it->second + "\n";
    }
    for (const auto& [name, d] : after)
        if (!before.count(name)) diff += "added " + name + "\n";
    return diff;
}

uint64_t diskUsage(const std::string& root) {
    uint64_t total = 0;
    struct stat st;
    if (::lstat(root.c_str(), &st) == 0) total += uint64_t(st.st_blocks) * 512;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec))
        if (::lstat(it->path().c_str(), &st) == 0) total += uint64_t(st.st_blocks) * 512;
    return total;
}

std::vector<std::string> listDirectory(const std::string& dir) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir, ec)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

void copyTree(const std::string& from, const std::string& to) {
    CommandResult r = runCommand({"cp", "-a", "--sparse=always", from, to});
    if (!r.exited || r.exitCode != 0) throw std::runtime_error("cp failed: " + r.describe());
}

// ---------------------------------------------------------------- property lists

std::optional<Value> parsePropertyList(const std::string& text) {
    if (text.empty()) return std::nullopt;
    return QVPropertyListFromData(Bytes(text.begin(), text.end()), nullptr);
}

std::optional<Value> dictGet(const Value& dict, const std::string& key) {
    DictRef d = dict.toDict();
    if (!d) return std::nullopt;
    auto it = d->find(DictKey(key));
    if (it == d->end()) return std::nullopt;
    return it->second;
}

// ---------------------------------------------------------------- the sandbox

ImageSandbox::ImageSandbox() : root_(makeTempDir("qvimage")) {
    runtime_ = root_ + "/run";
    ::mkdir(runtime_.c_str(), 0700);
}

ImageSandbox::~ImageSandbox() { cleanup(); }

std::string ImageSandbox::makeDir(const std::string& name) const {
    std::string p = path(name);
    std::error_code ec;
    fs::create_directories(p, ec);
    return p;
}

CommandResult ImageSandbox::qvImage(const std::vector<std::string>& args, const std::optional<std::string>& password,
                                    int timeoutSeconds) const {
    std::vector<std::string> argv{qvImageBinary()};
    argv.insert(argv.end(), args.begin(), args.end());
    CommandOptions o;
    o.input = password;
    o.env = {{"XDG_RUNTIME_DIR", runtime_}};
    if (!layer_.empty()) o.env.push_back({"QV_IMAGE_LAYER", layer_});
    o.cwd = "/";
    o.timeoutSeconds = timeoutSeconds;
    CommandResult r = runCommand(argv, o);
    // The application reads a child's output to end of file: a background
    // process that keeps the pipes would hang it.
    EXPECT_FALSE(r.pipesHeldOpen) << "qv-image " << (args.empty() ? "" : args[0])
                                  << " left its output pipes open in a background process";
    EXPECT_FALSE(r.timedOut) << "qv-image " << (args.empty() ? "" : args[0]) << " timed out";
    return r;
}

CommandResult ImageSandbox::create(const std::string& image, const std::string& password, uint64_t mib,
                                   const std::string& fs, const std::string& encryption,
                                   const std::string& volname) const {
    return qvImage({"create", "-encryption", encryption, "-stdinpass", "-size", std::to_string(mib) + "m", "-type",
                    "SPARSEBUNDLE", "-volname", volname, "-fs", fs, "-ov", image},
                   password);
}

CommandResult ImageSandbox::attach(const std::string& image, const std::string& mountPoint,
                                   const std::string& password, bool nobrowse) const {
    std::vector<std::string> args{"attach", image, "-mountpoint", mountPoint, "-noverify", "-noautofsck", "-stdinpass"};
    if (nobrowse) args.push_back("-nobrowse");
    return qvImage(args, password);
}

CommandResult ImageSandbox::attachNoMount(const std::string& image, const std::string& password,
                                          std::string* devEntry) const {
    CommandResult r = qvImage({"attach", image, "-plist", "-stdinpass", "-nomount"}, password);
    if (devEntry) devEntry->clear();
    if (r.exitCode != 0 || !devEntry) return r;
    auto plist = parsePropertyList(r.out);
    if (!plist) return r;
    auto entities = dictGet(*plist, "system-entities");
    if (!entities || !entities->toArray()) return r;
    for (const auto& entity : *entities->toArray()) {
        auto mountable = dictGet(entity, "potentially-mountable");
        auto dev = dictGet(entity, "dev-entry");
        if (mountable && mountable->toBool() && dev && dev->isString()) {
            *devEntry = dev->toString();
            break;
        }
    }
    return r;
}

CommandResult ImageSandbox::detach(const std::string& target, bool force) const {
    std::vector<std::string> args{"detach", target};
    if (force) args.push_back("-force");
    return qvImage(args);
}

std::string ImageSandbox::createOrFail(const std::string& name, const std::string& password, uint64_t mib,
                                       const std::string& fs) const {
    std::string image = path(name);
    CommandResult r = create(image, password, mib, fs);
    EXPECT_EQ(r.exitCode, 0) << "create " << name << ": " << r.describe();
    return image;
}

size_t ImageSandbox::killImageProcesses() const {
    std::vector<pid_t> pids = processesUsing(root_);
    killProcesses(pids);
    return pids.size();
}

void ImageSandbox::cleanup() {
    if (cleaned_) return;
    cleaned_ = true;
    auto mountsUnder = [this] {
        std::vector<std::string> points;
        for (const auto& m : mountTable())
            if (startsWithPath(m.mountPoint, root_)) points.push_back(m.mountPoint);
        // Deepest first.
        std::sort(points.begin(), points.end(), [](const auto& a, const auto& b) { return a.size() > b.size(); });
        return points;
    };
    // The volumes the tests mounted: let the program take them down first.
    for (const auto& point : mountsUnder())
        if (!startsWithPath(point, runtime_)) qvImage({"detach", point, "-force"}, std::nullopt, 30);
    for (int pass = 0; pass < 2; ++pass) {
        // Processes first: once a mount is detached, the paths they hold no
        // longer lie under the sandbox and they can't be found any more.
        killProcesses(processesUsing(root_));
        for (const auto& point : mountsUnder()) lazyUnmount(point);
        for (const auto& dev : loopDevicesBackedUnder(root_)) {
            int fd = ::open(dev.c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) {
                ::ioctl(fd, LOOP_CLR_FD, 0);
                ::close(fd);
            }
        }
    }
    if (!mountsUnder().empty()) {
        std::fprintf(stderr, "warning: %s still has mounts; left in place\n", root_.c_str());
        return;
    }
    std::error_code ec;
    fs::remove_all(root_, ec);
}

// ---------------------------------------------------------------- other users

std::optional<std::string> ensureTestUser(std::string* why) {
    const std::string name = "qvimgtest";
    if (::getpwnam(name.c_str())) return name;
    if (::geteuid() != 0) {
        if (why) *why = "not root: cannot create the test user";
        return std::nullopt;
    }
    CommandResult r = runCommand({"useradd", "-m", "-s", "/bin/sh", name});
    if (r.exitCode != 0 && !::getpwnam(name.c_str())) {
        if (why) *why = "useradd failed: " + r.describe();
        return std::nullopt;
    }
    return name;
}

bool userIdsFor(const std::string& user, uid_t* uid, gid_t* gid) {
    const passwd* pw = ::getpwnam(user.c_str());
    if (!pw) return false;
    *uid = pw->pw_uid;
    *gid = pw->pw_gid;
    return true;
}

} // namespace qv::test
