#pragma once
// A user whose folder holds the kinds of entries a user's folder holds (hard
// and symbolic links, extended attributes, permissions, names that are no
// text), with enough data that copying it takes a while; and the checks of a
// folder against its image, for the tests of qv encrypt and qv restore.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "cli/CliSupport.h"
#include "disk/TreeCompare.h"
#include "vault/DBMaster.h"
#include "vault/DBSubdb.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace qv::test {

namespace fs = std::filesystem;

inline void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// A user with a set and a folder holding the kinds of entries a user's folder
// holds, and enough data that the copy into the image takes a while.
struct World : QvUser {
    std::string folder = home + "/My Files";
    World(const ImageSandbox& sandbox, const std::string& name) : QvUser(sandbox, name, "crash test set") {
        const std::string root = folder;
        fs::create_directories(root + "/sub dir/deeper");
        fs::create_directories(root + "/empty");
        writeBytes(root + "/plain.txt", "plain");
        writeBytes(root + "/with\nnewline", "nl");
        writeBytes(root + "/latin1-\xe9\xff", "not utf-8");
        for (int i = 0; i < 6; ++i) writeBytes(root + "/sub dir/big" + std::to_string(i), patternBytes(i, 6 << 20));
        fs::create_hard_link(root + "/plain.txt", root + "/sub dir/hard link");
        fs::create_symlink("../plain.txt", root + "/sub dir/relative link");
        fs::create_symlink("/nowhere/at/all", root + "/dangling");
        ::setxattr((root + "/plain.txt").c_str(), "user.colour", "teal", 4, 0);
        fs::permissions(root + "/sub dir/deeper", fs::perms::owner_all);
        EXPECT_EQ(qv({"set", "create"}).exitCode, 0);
    }
    std::string trashed() const { return home + "/.local/share/Trash/files/" + fs::path(folder).filename().string(); }
    // The images in the world's storage.
    std::vector<std::string> images() const {
        auto names = listDirectory(data() + "/Data");
        std::erase_if(names, [](const std::string& n) { return !n.ends_with(".sparsebundle"); });
        return names;
    }
    // Starts `qv encrypt` with the set password on its input and its standard
    // error on *errFd (or /dev/null when errFd is null).
    pid_t startEncrypt(int* errFd) const { return start({"encrypt", folder}, errFd); }
    // Starts `qv <args>` the same way.
    pid_t start(const std::vector<std::string>& args, int* errFd) const {
        int in[2], err[2];
        if (::pipe(in) != 0 || ::pipe(err) != 0) return -1;
        const pid_t pid = ::fork();
        if (pid == 0) {
            const int null = ::open("/dev/null", O_WRONLY);
            ::dup2(in[0], 0);
            ::dup2(null, 1);
            ::dup2(errFd ? err[1] : null, 2);
            ::close(in[1]);
            ::close(err[0]);
            for (const auto& [k, v] : env) ::setenv(k.c_str(), v.c_str(), 1);
            std::vector<char*> argv{const_cast<char*>("qv")};
            for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
            argv.push_back(nullptr);
            ::execv(binary().c_str(), argv.data());
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(err[1]);
        const std::string line = password + "\n";
        (void)!::write(in[1], line.data(), line.size());
        ::close(in[1]);
        errFd ? void(*errFd = err[0]) : void(::close(err[0]));
        return pid;
    }
};

// compareTrees without what every new file system holds.
inline std::vector<std::string> differencesInImage(const std::string& reference, const std::string& mounted) {
    std::vector<std::string> diffs;
    for (const auto& d : compareTrees(reference, mounted, {.wholeSeconds = true}))
        if (d.rfind("'lost+found'", 0) != 0 && d.rfind("'.hidden'", 0) != 0) diffs.push_back(d);
    return diffs;
}

class MixedTreeTest : public ::testing::Test {
protected:
    // A copy of the world's folder as it is now, to compare with later.
    std::string reference(const World& w) {
        const std::string copy = sandbox.path(fs::path(w.home).parent_path().filename().string() + "/reference");
        EXPECT_EQ(runProcess({"/bin/cp", "-a", w.folder, copy}, "").exitCode, 0);
        return copy;
    }
    // The world's image of the folder and its password, as its Folder Set keeps
    // them; the image is "" with the reason in *why when there is none.
    std::string imageOf(const World& w, std::string* password, std::string* why) {
        for (const auto& [k, v] : w.env) ::setenv(k.c_str(), v.c_str(), 1);
        QVError error;
        auto master = DBMaster::initWithMasterDBURL(w.data() + "/database3", false, &error);
        auto subdb = master ? master->getSubDBWithPassword(w.password, &error) : nullptr;
        QVRecordRef folder = subdb ? subdb->folderForMountpath(w.folder) : nullptr;
        auto plain =
            folder ? QVCrypto::decryptWithString(FolderRef{folder}.password().toData(), w.password) : std::nullopt;
        if (!plain) {
            *why = !master  ? "no database: " + error.description
                   : folder ? "image password doesn't decrypt"
                            : "no folder record";
            return "";
        }
        *password = std::string(plain->begin(), plain->end());
        return DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath();
    }
    // Opens the world's image of the folder with the password kept in its Folder
    // Set, and compares it with `reference`.
    std::vector<std::string> imageDifferences(const World& w, const std::string& reference) {
        std::string password, why;
        const std::string image = imageOf(w, &password, &why);
        if (image.empty()) return {why};
        const std::string mnt = sandbox.makeDir("check-" + std::to_string(++checks));
        auto r = sandbox.attach(image, mnt, password);
        if (r.exitCode != 0) return {"image doesn't attach: " + r.describe()};
        auto diffs = differencesInImage(reference, mnt);
        sandbox.detach(mnt);
        return diffs;
    }
    // Starts `qv encrypt` of the world's folder and kills it, and what it left
    // running, as a crash would, at `moment`: "creating" (the image being made
    // in Temp), "image in place" (in the storage) or "in the Trash" (the
    // original moved there); or once it ended, if it was quicker.
    void killEncryptAt(const World& w, const std::string& moment) {
        const pid_t pid = w.startEncrypt(nullptr);
        ASSERT_GT(pid, 0);
        for (int i = 0; i < 60000; ++i) {
            if (::waitpid(pid, nullptr, WNOHANG) == pid) break;
            const bool reached = moment == "creating"         ? listDirectory(w.data() + "/Data/Temp").size() >= 2
                                 : moment == "image in place" ? !w.images().empty()
                                                              : fs::exists(w.trashed());
            if (reached) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
        sandbox.killImageProcesses();
        for (const auto& m : mountTable())
            if (m.mountPoint.rfind(sandbox.root() + "/", 0) == 0) lazyUnmount(m.mountPoint);
    }
    ImageSandbox sandbox;
    int checks = 0;
};

} // namespace qv::test
