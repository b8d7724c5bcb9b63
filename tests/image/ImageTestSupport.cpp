#include "image/ImageTestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "vault/PropertyList.h"

extern char** environ;
namespace fs = std::filesystem;

namespace qv::test {

namespace {

// A child that exits without reading its input must not kill the test with SIGPIPE.
const bool kIgnoreSigpipe = [] { return ::signal(SIGPIPE, SIG_IGN) != SIG_ERR; }();

using Clock = std::chrono::steady_clock;

bool startsWithPath(const std::string& path, const std::string& prefix) {
    return path.compare(0, prefix.size(), prefix) == 0 && (path.size() == prefix.size() || path[prefix.size()] == '/');
}

std::string slurp(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

std::string readLink(const std::string& path) {
    std::error_code ec;
    return fs::read_symlink(path, ec);
}

// The kernel writes a space in a mount point as \040.
std::string unescapeMountField(std::string s) {
    for (size_t i = 0; (i = s.find('\\', i)) != std::string::npos && i + 3 < s.size(); ++i)
        s.replace(i, 4, 1, char(std::stoi(s.substr(i + 1, 3), nullptr, 8)));
    return s;
}

// Starts argv with the given descriptors as 0, 1, 2 (-1: /dev/null) and no others.
pid_t spawn(const std::vector<std::string>& argv, char** envp, const std::string& cwd, int in, int out, int err) {
    std::vector<char*> cargv;
    for (const auto& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
    cargv.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    const int fds[3] = {in, out, err};
    for (int target = 0; target < 3; ++target) {
        if (fds[target] >= 0)
            posix_spawn_file_actions_adddup2(&fa, fds[target], target);
        else
            posix_spawn_file_actions_addopen(&fa, target, "/dev/null", target ? O_WRONLY : O_RDONLY, 0);
    }
    posix_spawn_file_actions_addclosefrom_np(&fa, 3);
    if (!cwd.empty()) posix_spawn_file_actions_addchdir_np(&fa, cwd.c_str());
    pid_t pid = -1;
    if (::posix_spawnp(&pid, cargv[0], &fa, nullptr, cargv.data(), envp) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&fa);
    return pid;
}

} // namespace

std::string CommandResult::describe() const {
    std::string how = timedOut     ? "timed out"
                      : termSignal ? "killed by signal " + std::to_string(termSignal)
                                   : "exit " + std::to_string(exitCode);
    if (pipesHeldOpen) how += " (output pipes held open after exit)";
    return how + "; stderr: [" + err + "] stdout: [" + out.substr(0, 400) + "]";
}

CommandResult runCommand(const std::vector<std::string>& argv, const CommandOptions& options) {
    std::vector<std::string> envStrings;
    for (char** e = environ; *e; ++e) {
        const std::string entry = *e;
        auto same = [&](const auto& kv) { return entry.rfind(kv.first + "=", 0) == 0; };
        if (std::none_of(options.env.begin(), options.env.end(), same)) envStrings.push_back(entry);
    }
    for (const auto& [k, v] : options.env) envStrings.push_back(k + "=" + v);
    std::vector<char*> cenv;
    for (auto& s : envStrings) cenv.push_back(s.data());
    cenv.push_back(nullptr);

    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) || ::pipe2(out, O_CLOEXEC) || ::pipe2(err, O_CLOEXEC))
        throw std::runtime_error("pipe failed");
    const pid_t pid = spawn(argv, cenv.data(), options.cwd, options.input ? in[0] : -1, out[1], err[1]);
    for (int fd : {in[0], out[1], err[1]}) ::close(fd);
    if (pid < 0) throw std::runtime_error("cannot start " + argv[0]);
    CommandResult result;
    int inFd = in[1], fds[2] = {out[0], err[0]};
    if (!options.input || options.input->empty()) ::close(inFd), inFd = -1;
    ::fcntl(inFd, F_SETFL, O_NONBLOCK);
    const auto deadline = Clock::now() + std::chrono::seconds(options.timeoutSeconds);
    std::optional<Clock::time_point> exitedAt;
    size_t written = 0;
    int status = 0;
    while (fds[0] >= 0 || fds[1] >= 0 || !exitedAt) {
        if (!exitedAt && ::waitpid(pid, &status, WNOHANG) == pid) exitedAt = Clock::now();
        if (exitedAt && Clock::now() - *exitedAt > std::chrono::seconds(5)) {
            result.pipesHeldOpen = true;  // something the child started still holds them
            break;
        }
        if (Clock::now() > deadline) {
            result.timedOut = true;
            if (!exitedAt) ::kill(pid, SIGKILL), ::waitpid(pid, &status, 0);
            break;
        }
        pollfd p[3] = {{fds[0], POLLIN, 0}, {fds[1], POLLIN, 0}, {inFd, POLLOUT, 0}};
        ::poll(p, 3, 50);
        if (p[2].revents) {
            const ssize_t n = ::write(inFd, options.input->data() + written, options.input->size() - written);
            if (n > 0) written += size_t(n);
            if ((n < 0 && errno != EAGAIN && errno != EINTR) || written == options.input->size()) {
                ::close(inFd);
                inFd = -1;
            }
        }
        for (int i = 0; i < 2; ++i) {
            if (!p[i].revents) continue;
            char buf[65536];
            const ssize_t n = ::read(fds[i], buf, sizeof buf);
            if (n > 0) {
                (i ? result.err : result.out).append(buf, size_t(n));
            } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                ::close(fds[i]);
                fds[i] = -1;
            }
        }
    }
    for (int fd : {inFd, fds[0], fds[1]})
        if (fd >= 0) ::close(fd);
    result.exited = WIFEXITED(status);
    if (result.exited) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.termSignal = WTERMSIG(status);
    return result;
}

pid_t startHolder(const std::vector<std::string>& argv, const std::string& cwd) {
    // The write end stays open (leaked on purpose) so that a shell waits for commands.
    int in[2];
    if (::pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const pid_t pid = spawn(argv, environ, cwd, in[0], -1, -1);
    ::close(in[0]);
    return pid;
}

void stopChild(pid_t pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

std::string qvImageBinary() { return std::string(QV_BINARY_DIR) + "/src/qv-image"; }

std::string processName(pid_t pid) {
    const std::string comm = slurp("/proc/" + std::to_string(pid) + "/comm");
    return comm.substr(0, comm.find('\n'));
}

std::vector<pid_t> processesUsing(const std::string& prefix) {
    std::vector<pid_t> found;
    for (const auto& name : listDirectory("/proc")) {
        if (name.find_first_not_of("0123456789") != std::string::npos || std::stol(name) == ::getpid()) continue;
        const std::string base = "/proc/" + name;
        bool uses = slurp(base + "/cmdline").find(prefix) != std::string::npos ||
                    slurp(base + "/environ").find(prefix) != std::string::npos ||
                    startsWithPath(readLink(base + "/cwd"), prefix) || startsWithPath(readLink(base + "/root"), prefix);
        for (const auto& fd : listDirectory(base + "/fd")) uses = uses || startsWithPath(readLink(base + "/fd/" + fd), prefix);
        if (uses || slurp(base + "/maps").find(prefix) != std::string::npos) found.push_back(pid_t(std::stol(name)));
    }
    return found;
}

bool waitUntilNoProcessUses(const std::string& prefix) {
    for (int i = 0; i < 150; ++i) {
        if (processesUsing(prefix).empty()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return processesUsing(prefix).empty();
}

void killProcesses(const std::vector<pid_t>& pids) {
    for (pid_t p : pids) ::kill(p, SIGKILL);
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    for (pid_t p : pids) {
        while (Clock::now() < deadline && ::waitpid(p, nullptr, WNOHANG) != p) {
            const std::string stat = slurp("/proc/" + std::to_string(p) + "/stat");
            if (stat.empty() || stat.find(") Z ") != std::string::npos) break;  // gone, or a zombie not ours to reap
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
}

std::vector<MountEntry> mountTable() {
    std::vector<MountEntry> table;
    std::istringstream in(slurp("/proc/self/mountinfo"));
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::vector<std::string> f;
        for (std::string w; fields >> w;) f.push_back(w);
        auto dash = std::find(f.begin(), f.end(), "-");
        if (f.size() < 10 || dash == f.end() || dash + 3 > f.end()) continue;
        table.push_back({unescapeMountField(f[4]), *(dash + 1), unescapeMountField(*(dash + 2)), f[5] + "," + *(dash + 3)});
    }
    return table;
}

std::optional<MountEntry> mountAt(const std::string& path) {
    // Not fs::canonical: a dead FUSE mount can't be stat'ed, but the directories above it can.
    std::error_code ec;
    const std::string canonical = (fs::weakly_canonical(fs::path(path).parent_path(), ec) / fs::path(path).filename());
    std::optional<MountEntry> found;  // the last one is on top
    for (const auto& m : mountTable())
        if (m.mountPoint == canonical) found = m;
    return found;
}

bool isMountPoint(const std::string& path) { return mountAt(path).has_value(); }

void lazyUnmount(const std::string& path) {
    if (::geteuid() == 0 && ::umount2(path.c_str(), MNT_DETACH) == 0) return;
    runCommand({"fusermount3", "-uz", path}, {{}, {}, "", 20});
}

std::string readFile(const std::string& path) {
    if (!std::ifstream(path)) throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
    return slurp(path);
}

void writeFileSynced(const std::string& path, const std::string& bytes) {
    if (!(std::ofstream(path, std::ios::binary) << bytes)) throw std::runtime_error("cannot write " + path);
    // The file through a descriptor open for writing: fuse2fs flushes only for one.
    const std::string dir = fs::path(path).parent_path();
    for (const auto& [p, flags] : {std::pair{path, O_WRONLY}, std::pair{dir, O_RDONLY}}) {
        const int fd = ::open(p.c_str(), flags | O_CLOEXEC);
        const bool ok = fd >= 0 && ::fsync(fd) == 0;
        if (fd >= 0) ::close(fd);
        if (!ok && p == path) throw std::runtime_error("cannot fsync " + path + ": " + std::strerror(errno));
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
    auto describe = [](const std::string& path) {
        struct stat s {};
        if (::lstat(path.c_str(), &s) != 0) return std::string("gone");
        std::string d = QVFormat("mode=%o size=%lld", unsigned(s.st_mode), (long long)s.st_size);
        if (S_ISREG(s.st_mode))
            d += QVFormat(" mtime=%lld.%09ld hash=%zx", (long long)s.st_mtim.tv_sec, s.st_mtim.tv_nsec,
                          std::hash<std::string>{}(slurp(path)));
        if (S_ISLNK(s.st_mode)) d += " -> " + readLink(path);
        return d;
    };
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(root, ec))) return snap;
    snap["."] = describe(root);
    for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
         it.increment(ec))
        snap[it->path().string().substr(root.size() + 1)] = describe(it->path().string());
    return snap;
}

std::string diffSnapshots(const TreeSnapshot& before, const TreeSnapshot& after) {
    std::string diff;
    for (const auto& [name, d] : before)
        if (!after.count(name) || after.at(name) != d)
            diff += name + ": " + d + " => " + (after.count(name) ? after.at(name) : "removed") + "\n";
    for (const auto& [name, d] : after)
        if (!before.count(name)) diff += "added " + name + "\n";
    return diff;
}

std::vector<std::string> listDirectory(const std::string& dir) {
    // readdir rather than a directory_iterator, which throws when /proc entries vanish under it.
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
        ::closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

void copyTree(const std::string& from, const std::string& to) {
    CommandResult r = runCommand({"cp", "-a", "--sparse=always", from, to});
    if (r.exitCode != 0) throw std::runtime_error("cp failed: " + r.describe());
}

std::optional<Value> parsePropertyList(const std::string& text) {
    if (text.empty()) return std::nullopt;
    return QVPropertyListFromData(Bytes(text.begin(), text.end()), nullptr);
}

std::optional<Value> dictGet(const Value& dict, const std::string& key) {
    DictRef d = dict.toDict();
    if (!d) return std::nullopt;
    auto it = d->find(DictKey(key));
    return it == d->end() ? std::nullopt : std::optional<Value>(it->second);
}

ImageSandbox::ImageSandbox() : root_(makeTempDir("qvimage")), runtime_(root_ + "/run") {
    ::mkdir(runtime_.c_str(), 0700);
}

std::string ImageSandbox::makeDir(const std::string& name) const {
    std::error_code ec;
    return fs::create_directories(path(name), ec), path(name);
}

CommandResult ImageSandbox::qvImage(const std::vector<std::string>& args, const std::optional<std::string>& password,
                                    int timeoutSeconds) const {
    std::vector<std::string> argv{qvImageBinary()};
    argv.insert(argv.end(), args.begin(), args.end());
    CommandOptions o{password, {{"XDG_RUNTIME_DIR", runtime_}}, "/", timeoutSeconds};
    if (!layer_.empty()) o.env.push_back({"QV_IMAGE_LAYER", layer_});
    CommandResult r = runCommand(argv, o);
    // The application reads a child's output to its end: a background process that keeps the pipes would hang it.
    EXPECT_FALSE(r.pipesHeldOpen || r.timedOut) << ::testing::PrintToString(args) << ": " << r.describe();
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
    devEntry->clear();
    auto plist = parsePropertyList(r.out);
    auto entities = plist ? dictGet(*plist, "system-entities") : std::nullopt;
    if (r.exitCode != 0 || !entities || !entities->toArray()) return r;
    for (const auto& entity : *entities->toArray()) {
        auto mountable = dictGet(entity, "potentially-mountable");
        auto dev = dictGet(entity, "dev-entry");
        if (mountable && mountable->toBool() && dev && dev->isString()) *devEntry = dev->toString();
    }
    return r;
}

CommandResult ImageSandbox::detach(const std::string& target, bool force) const {
    return force ? qvImage({"detach", target, "-force"}) : qvImage({"detach", target});
}

std::string ImageSandbox::createOrFail(const std::string& name, const std::string& password, uint64_t mib) const {
    CommandResult r = create(path(name), password, mib);
    EXPECT_EQ(r.exitCode, 0) << "create " << name << ": " << r.describe();
    return path(name);
}

size_t ImageSandbox::killImageProcesses() const {
    const std::vector<pid_t> pids = processesUsing(root_);
    return killProcesses(pids), pids.size();
}

void ImageSandbox::cleanup() {
    if (cleaned_) return;
    cleaned_ = true;
    auto mountsUnder = [this] {
        std::vector<std::string> points;
        for (const auto& m : mountTable())
            if (startsWithPath(m.mountPoint, root_)) points.push_back(m.mountPoint);
        std::sort(points.begin(), points.end(), [](const auto& a, const auto& b) { return a.size() > b.size(); });
        return points;  // deepest first
    };
    // The volumes the tests mounted: let the program take them down first.
    for (const auto& point : mountsUnder())
        if (!startsWithPath(point, runtime_)) qvImage({"detach", point, "-force"}, std::nullopt, 30);
    for (int pass = 0; pass < 2; ++pass) {
        // Processes first: once a mount is detached, the paths they hold no longer lie under the sandbox.
        killProcesses(processesUsing(root_));
        for (const auto& point : mountsUnder()) lazyUnmount(point);
        for (const auto& dev : listDirectory("/sys/block")) {
            const std::string backing = slurp("/sys/block/" + dev + "/loop/backing_file");
            if (!startsWithPath(backing.substr(0, backing.find('\n')), root_)) continue;
            const int fd = ::open(("/dev/" + dev).c_str(), O_RDONLY | O_CLOEXEC);
            if (fd >= 0) ::ioctl(fd, LOOP_CLR_FD, 0), ::close(fd);
        }
    }
    if (!mountsUnder().empty()) {
        std::fprintf(stderr, "warning: %s still has mounts; left in place\n", root_.c_str());
        return;
    }
    std::error_code ec;
    fs::remove_all(root_, ec);
}

} // namespace qv::test
