// Our containers against the scrypt file tool, both ways. The password always
// travels in a private file, never on the tool's command line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/TempHome.h"
#include "vault/QVCrypto.h"

extern char** environ;

using namespace qv;

namespace {

class ScryptTool : public ::testing::Test {
protected:
    void SetUp() override {
        if (access("/usr/bin/scrypt", X_OK) != 0) GTEST_SKIP() << "/usr/bin/scrypt is not installed";
        dir_ = test::makeTempDir("qvscrypt");
        setPassword(password_);
    }
    void TearDown() override {
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }

    void setPassword(const std::string& pw) {
        std::ofstream(at("pass"), std::ios::binary | std::ios::trunc) << pw;
        std::filesystem::permissions(at("pass"), std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    }
    std::string at(const std::string& name) const { return dir_ + "/" + name; }
    void put(const std::string& name, const Bytes& b) {
        std::ofstream(at(name), std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
    }
    Bytes get(const std::string& name) {
        std::ifstream f(at(name), std::ios::binary);
        return Bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    }

    // Runs `scrypt <verb> --passphrase file:... <extra> in out`; its messages land in "log".
    int tool(const std::string& verb, std::vector<std::string> extra, const std::string& in, const std::string& out) {
        std::vector<std::string> args = {"/usr/bin/scrypt", verb, "--passphrase", "file:" + at("pass")};
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back(at(in));
        args.push_back(at(out));
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        std::filesystem::remove(at(out));
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 2, at("log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        pid_t pid = -1;
        int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        int status = 0;
        while (rc == 0 && waitpid(pid, &status, 0) < 0) {
            if (errno != EINTR) return -1;
        }
        Bytes log = get("log");
        log_.assign(log.begin(), log.end());
        return rc == 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string dir_, log_;
    std::string password_ = "tool \xc3\xa9 password";
};

} // namespace

TEST_F(ScryptTool, DecryptsOurContainers) {
    // Empty, short, and long enough to run the counter through many blocks.
    for (size_t n : {size_t{0}, size_t{33}, size_t{(1 << 20) + 13}}) {
        Bytes plain = QVCrypto::randomDataOfLength(n, 0, 255);
        put("ours", *QVCrypto::encryptWithString(plain, password_));
        ASSERT_EQ(tool("dec", {}, "ours", "out"), 0) << n << ": " << log_;
        EXPECT_EQ(get("out"), plain) << n;
    }
    // The deterministic variant, at parameters other than the test switch's.
    auto params = std::make_shared<Dict>(Dict{{QVCryptoParamSalt, Value(QVCrypto::randomDataOfLength(32, 0, 255))},
                                              {QVCryptoParamLogN, Value(11)},
                                              {QVCryptoParamR, Value(4u)},
                                              {QVCryptoParamP, Value(2u)}});
    put("given", *QVCrypto::encrypt(Bytes{'k', 'e', 'y'}, Bytes(password_.begin(), password_.end()), params));
    ASSERT_EQ(tool("dec", {}, "given", "out"), 0) << log_;
    EXPECT_EQ(get("out"), (Bytes{'k', 'e', 'y'}));
    // And the tool refuses them under another password.
    setPassword("not the password");
    EXPECT_NE(tool("dec", {}, "given", "out"), 0);
}

TEST_F(ScryptTool, WeDecryptTheToolsContainers) {
    for (auto [logN, r, p] : {std::tuple{10, 8, 1}, std::tuple{12, 1, 3}, std::tuple{10, 16, 2}}) {
        Bytes plain = QVCrypto::randomDataOfLength(5000 + logN, 0, 255);
        put("plain", plain);
        ASSERT_EQ(tool("enc", {"--logN", std::to_string(logN), "-r", std::to_string(r), "-p", std::to_string(p)},
                       "plain", "theirs"),
                  0)
            << log_;
        Bytes c = get("theirs");
        ASSERT_EQ(c.size(), plain.size() + 128);
        EXPECT_EQ(QVCrypto::decryptWithString(c, password_), plain) << logN;
        EXPECT_FALSE(QVCrypto::decryptWithString(c, password_ + "x"));
    }
}
