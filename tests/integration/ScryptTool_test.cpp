// Our containers against the scrypt file tool, both ways. The password always
// travels in a private file, never on the tool's command line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "support/TempHome.h"
#include "vault/QVCrypto.h"

extern char** environ;

using namespace qv;

namespace {

const char* kTool = "/usr/bin/scrypt";

Bytes B(const std::string& s) { return Bytes(s.begin(), s.end()); }

class ScryptTool : public ::testing::Test {
protected:
    void SetUp() override {
        if (access(kTool, X_OK) != 0) GTEST_SKIP() << kTool << " is not installed";
        dir_ = test::makeTempDir("qvscrypt");
        passFile_ = dir_ + "/pass";
        setPassword(password_);
    }
    void TearDown() override {
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }

    void setPassword(const std::string& pw) {
        int fd = open(passFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, pw.data(), pw.size()), static_cast<ssize_t>(pw.size()));
        close(fd);
    }

    std::string path(const std::string& name) const { return dir_ + "/" + name; }

    static void writeFile(const std::string& p, const Bytes& b) {
        std::ofstream f(p, std::ios::binary | std::ios::trunc);
        f.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
    }
    static Bytes readFile(const std::string& p) {
        std::ifstream f(p, std::ios::binary);
        return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    }

    // Runs the tool with stdin from /dev/null and its messages in a file;
    // returns the exit status, or -1 if it did not exit normally.
    int runTool(std::vector<std::string> args) {
        args.insert(args.begin(), kTool);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
        const std::string log = path("tool.log");
        posix_spawn_file_actions_addopen(&fa, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        pid_t pid = -1;
        int rc = posix_spawn(&pid, kTool, &fa, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        if (rc != 0) return -1;
        int status = 0;
        while (waitpid(pid, &status, 0) < 0) {
            if (errno != EINTR) return -1;
        }
        Bytes logged = readFile(log);
        lastLog_.assign(logged.begin(), logged.end());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    int toolDecrypt(const Bytes& container, Bytes* plain) {
        writeFile(path("in.scrypt"), container);
        std::filesystem::remove(path("out"));
        int rc = runTool({"dec", "--passphrase", "file:" + passFile_, path("in.scrypt"), path("out")});
        if (rc == 0) *plain = readFile(path("out"));
        return rc;
    }

    std::optional<Bytes> toolEncrypt(const Bytes& plain, int logN, int r, int p) {
        writeFile(path("plain"), plain);
        int rc = runTool({"enc", "--passphrase", "file:" + passFile_, "--logN", std::to_string(logN), "-r",
                          std::to_string(r), "-p", std::to_string(p), path("plain"), path("enc.scrypt")});
        if (rc != 0) return std::nullopt;
        return readFile(path("enc.scrypt"));
    }

    std::string dir_, passFile_, lastLog_;
    std::string password_ = "tool \xc3\xa9 password";
};

} // namespace

TEST_F(ScryptTool, DecryptsOurContainers) {
    // Empty, short, and long enough to run the counter through many blocks.
    for (size_t n : {size_t{0}, size_t{33}, size_t{(1 << 20) + 13}}) {
        Bytes plain = QVCrypto::randomDataOfLength(n, 0, 255);
        auto c = QVCrypto::encryptWithString(plain, password_);
        ASSERT_TRUE(c);
        Bytes out;
        ASSERT_EQ(toolDecrypt(*c, &out), 0) << n << ": " << lastLog_;
        EXPECT_EQ(out, plain) << n;
    }
    // The deterministic variant too, at parameters other than the test switch's.
    auto params = std::make_shared<Dict>();
    (*params)[QVCryptoParamSalt] = Value(QVCrypto::randomDataOfLength(32, 0, 255));
    (*params)[QVCryptoParamLogN] = Value(11);
    (*params)[QVCryptoParamR] = Value(4u);
    (*params)[QVCryptoParamP] = Value(2u);
    auto given = QVCrypto::encrypt(B("lookup"), B(password_), params);
    ASSERT_TRUE(given);
    Bytes out;
    ASSERT_EQ(toolDecrypt(*given, &out), 0) << lastLog_;
    EXPECT_EQ(out, B("lookup"));
}

TEST_F(ScryptTool, RefusesOurContainerUnderAnotherPassword) {
    auto c = QVCrypto::encryptWithString(B("secret"), password_);
    ASSERT_TRUE(c);
    setPassword("not the password");
    Bytes out;
    EXPECT_NE(toolDecrypt(*c, &out), 0);
}

TEST_F(ScryptTool, WeDecryptTheToolsContainers) {
    struct P {
        int logN, r, p;
    };
    for (P prm : {P{10, 8, 1}, P{12, 1, 3}, P{10, 16, 2}}) {
        Bytes plain = QVCrypto::randomDataOfLength(5000 + prm.logN, 0, 255);
        auto c = toolEncrypt(plain, prm.logN, prm.r, prm.p);
        ASSERT_TRUE(c) << lastLog_;
        ASSERT_EQ(c->size(), plain.size() + 128);
        auto back = QVCrypto::decryptWithString(*c, password_);
        ASSERT_TRUE(back) << prm.logN;
        EXPECT_EQ(*back, plain);
        EXPECT_FALSE(QVCrypto::decryptWithString(*c, password_ + "x"));
    }
}
