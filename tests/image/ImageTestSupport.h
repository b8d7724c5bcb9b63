#pragma once
// What the image tests share: running a program with bytes on its standard
// input (no shell, so a password never reaches a command line), the mount
// table, tree snapshots, the processes that serve an image, and a sandbox that
// tears down whatever is still mounted or running under it, even after a
// failed assertion.
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vault/Value.h"

namespace qv::test {

struct CommandResult {
    int exitCode = -1;  // valid when exited
    int termSignal = 0;
    bool exited = false;
    bool timedOut = false;
    bool pipesHeldOpen = false;  // exited, but something it started kept stdout/stderr open
    std::string out, err;
    std::string describe() const;  // how it ended and its stderr, for assertion messages
};

struct CommandOptions {
    std::optional<std::string> input;  // stdin bytes; none: /dev/null
    std::vector<std::pair<std::string, std::string>> env;  // added to or replacing the environment
    std::string cwd;
    int timeoutSeconds = 240;
};
CommandResult runCommand(const std::vector<std::string>& argv, const CommandOptions& options = {});

// A child that runs until stopChild (stdin a pipe that never ends, output to /dev/null).
pid_t startHolder(const std::vector<std::string>& argv, const std::string& cwd = "");
void stopChild(pid_t pid);
std::string qvImageBinary();

// Every other process whose command line, environment, directories, open files
// or mappings mention a path under `prefix`.
std::vector<pid_t> processesUsing(const std::string& prefix);
// Waits up to 15 s for the last of them to end (a device process finishes its
// work after detach returns); true once none is left.
bool waitUntilNoProcessUses(const std::string& prefix);
void killProcesses(const std::vector<pid_t>& pids);  // SIGKILL, then waits until gone
std::string processName(pid_t pid);

struct MountEntry {
    std::string mountPoint, fsType, source, options;
};
std::vector<MountEntry> mountTable();
std::optional<MountEntry> mountAt(const std::string& path);
bool isMountPoint(const std::string& path);
void lazyUnmount(const std::string& path);

std::string readFile(const std::string& path);  // throws when unreadable
void writeFileSynced(const std::string& path, const std::string& bytes);  // file and directory fsync'ed
std::string patternBytes(uint64_t seed, size_t size);  // deterministic, incompressible

// Name -> (mode, size, mtime, content hash) of every entry under root.
using TreeSnapshot = std::map<std::string, std::string>;
TreeSnapshot snapshotTree(const std::string& root);
std::string diffSnapshots(const TreeSnapshot& before, const TreeSnapshot& after);  // empty when equal

std::vector<std::string> listDirectory(const std::string& dir);  // sorted names; empty when missing
void copyTree(const std::string& from, const std::string& to);  // keeps holes and times

std::optional<Value> parsePropertyList(const std::string& text);
std::optional<Value> dictGet(const Value& dict, const std::string& key);

// A temporary directory for one test's images and mount points. Every qv-image
// run through it gets XDG_RUNTIME_DIR inside it, so all it starts can be found.
class ImageSandbox {
public:
    ImageSandbox();
    ~ImageSandbox() { cleanup(); }
    ImageSandbox(const ImageSandbox&) = delete;
    ImageSandbox& operator=(const ImageSandbox&) = delete;

    const std::string& root() const { return root_; }
    const std::string& runtimeDir() const { return runtime_; }
    std::string path(const std::string& name) const { return root_ + "/" + name; }
    std::string makeDir(const std::string& name) const;
    // QV_IMAGE_LAYER for every run; empty: the test process's own.
    void setLayer(const std::string& layer) { layer_ = layer; }

    CommandResult qvImage(const std::vector<std::string>& args, const std::optional<std::string>& password = {},
                          int timeoutSeconds = 240) const;
    // The argument vectors the application uses, word for word.
    CommandResult create(const std::string& image, const std::string& password, uint64_t mib,
                         const std::string& fs = "HFS+J", const std::string& encryption = "AES-256",
                         const std::string& volname = "QVTest") const;
    CommandResult attach(const std::string& image, const std::string& mountPoint, const std::string& password,
                         bool nobrowse = false) const;
    // attach -plist -nomount; *devEntry is the decrypted disk file.
    CommandResult attachNoMount(const std::string& image, const std::string& password, std::string* devEntry) const;
    CommandResult detach(const std::string& target, bool force = false) const;
    std::string createOrFail(const std::string& name, const std::string& password, uint64_t mib) const;

    // SIGKILL to everything serving the sandbox, as a crash would; mounts stay, stale.
    size_t killImageProcesses() const;
    // Detach, kill, unmount, free loop devices, then delete (only once nothing is mounted).
    void cleanup();

private:
    std::string root_, runtime_, layer_ = "fuse2fs";
    bool cleaned_ = false;
};

} // namespace qv::test
