#pragma once
// What the qv-image tests share: running a program with bytes on its standard
// input (fork and exec, no shell, so a password never reaches a command line),
// reading the mount table, hashing a directory tree, finding and killing the
// processes that serve an image, and a sandbox that owns a temporary directory
// and, when it goes away, tears down whatever is still mounted or running
// under it, even after a failed assertion.
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "vault/Value.h"

namespace qv::test {

// ---------------------------------------------------------------- processes

struct CommandResult {
    int exitCode = -1;        // valid when exited
    int termSignal = 0;       // set when the child died by a signal
    bool exited = false;
    bool timedOut = false;    // killed by us after the time limit
    bool pipesHeldOpen = false;  // the child exited but something it started kept stdout/stderr open
    std::string out;
    std::string err;

    // One line for assertion messages: how it ended and what it said on stderr.
    std::string describe() const;
};

struct CommandOptions {
    std::optional<std::string> input;  // bytes for stdin (a pipe); none: stdin is /dev/null
    std::vector<std::pair<std::string, std::string>> env;  // added to (or replacing in) the environment
    std::string cwd;
    int timeoutSeconds = 240;
};

CommandResult runCommand(const std::vector<std::string>& argv, const CommandOptions& options = {});

// A child that keeps running until killed; its pid is returned, the caller reaps it with stopChild.
pid_t startHolder(const std::vector<std::string>& argv, const std::string& cwd = "");
void stopChild(pid_t pid);

// The program under test, from the build tree.
std::string qvImageBinary();

// Every process other than this one whose command line, working directory,
// root or open files mention a path under `prefix`.
std::vector<pid_t> processesUsing(const std::string& prefix);
// SIGKILL to each of them, then waits (up to a few seconds) until they are gone.
void killProcesses(const std::vector<pid_t>& pids);
std::string processName(pid_t pid);  // the comm field

// ---------------------------------------------------------------- mounts

struct MountEntry {
    std::string mountPoint;
    std::string fsType;
    std::string source;
    std::string options;  // per-mount and super options, comma-joined
};
std::vector<MountEntry> mountTable();
std::optional<MountEntry> mountAt(const std::string& path);
bool isMountPoint(const std::string& path);
// Unmounts a stale or busy mount lazily, whatever its type.
void lazyUnmount(const std::string& path);
// /dev/loopN devices whose backing file lies under prefix.
std::vector<std::string> loopDevicesBackedUnder(const std::string& prefix);

// ---------------------------------------------------------------- files

std::string sha256Hex(const std::string& bytes);
std::string fileSha256(const std::string& path);
std::string readFile(const std::string& path);
// Writes, fsyncs the file and its directory; throws on failure.
void writeFileSynced(const std::string& path, const std::string& bytes);
// Deterministic, incompressible-looking bytes for a seed.
std::string patternBytes(uint64_t seed, size_t size);

// Name -> (size, mode, mtime, sha256) of every entry under root, so that two
// snapshots compare equal only if nothing was changed, added or removed.
using TreeSnapshot = std::map<std::string, std::string>;
TreeSnapshot snapshotTree(const std::string& root);
// Human-readable list of what differs, empty when equal.
std::string diffSnapshots(const TreeSnapshot& before, const TreeSnapshot& after);

// Bytes allocated on disk under root (st_blocks, not the apparent size).
uint64_t diskUsage(const std::string& root);
// Entries of a directory (names only, no "." and ".."); empty when missing.
std::vector<std::string> listDirectory(const std::string& dir);
void copyTree(const std::string& from, const std::string& to);  // keeps holes and times

// ---------------------------------------------------------------- property lists

// Parses XML or binary property-list text into a Value; nullopt when it is not one.
std::optional<Value> parsePropertyList(const std::string& text);
// dict[key] when value is a dictionary holding key.
std::optional<Value> dictGet(const Value& dict, const std::string& key);

// ---------------------------------------------------------------- the sandbox

// A temporary directory holding the images, mount points and the runtime
// directory of one test. Every qv-image run through it gets XDG_RUNTIME_DIR
// inside the sandbox, so everything the program starts can be found there.
class ImageSandbox {
public:
    ImageSandbox();
    ~ImageSandbox();  // cleanup()
    ImageSandbox(const ImageSandbox&) = delete;
    ImageSandbox& operator=(const ImageSandbox&) = delete;

    const std::string& root() const { return root_; }
    const std::string& runtimeDir() const { return runtime_; }
    std::string path(const std::string& name) const { return root_ + "/" + name; }
    // An empty directory under the sandbox, created if missing.
    std::string makeDir(const std::string& name) const;

    // The file-system layer used when a call does not name one (QV_IMAGE_LAYER;
    // empty: the variable is left as the test process has it).
    void setLayer(const std::string& layer) { layer_ = layer; }
    const std::string& layer() const { return layer_; }

    // qv-image <args>, with the password on stdin when given.
    CommandResult qvImage(const std::vector<std::string>& args, const std::optional<std::string>& password = {},
                          int timeoutSeconds = 240) const;

    // The argument vectors the application uses, word for word.
    CommandResult create(const std::string& image, const std::string& password, uint64_t mib,
                         const std::string& fs = "HFS+J", const std::string& encryption = "AES-256",
                         const std::string& volname = "QVTest") const;
    CommandResult attach(const std::string& image, const std::string& mountPoint, const std::string& password,
                         bool nobrowse = false) const;
    // attach -plist -nomount; on success *devEntry is the decrypted disk file.
    CommandResult attachNoMount(const std::string& image, const std::string& password, std::string* devEntry) const;
    CommandResult detach(const std::string& target, bool force = false) const;

    // Creates an image and fails the current test if that did not work.
    std::string createOrFail(const std::string& name, const std::string& password, uint64_t mib,
                             const std::string& fs = "HFS+J") const;

    // Kills every process serving something under the sandbox (SIGKILL), as a
    // crash would, and returns how many there were. Mounts stay, stale.
    size_t killImageProcesses() const;

    // Detach everything, unmount, kill, free loop devices, delete the directory
    // (only if nothing is mounted under it any more). Safe to call twice.
    void cleanup();

private:
    std::string root_;
    std::string runtime_;
    std::string layer_ = "fuse2fs";
    bool cleaned_ = false;
};

// ---------------------------------------------------------------- other users

// A local user for the unprivileged runs, created once (useradd -m) and reused.
// Returns its name, or nullopt with *why set.
std::optional<std::string> ensureTestUser(std::string* why);
bool userIdsFor(const std::string& user, uid_t* uid, gid_t* gid);

} // namespace qv::test
