// Our containers against the scrypt file tool, both ways. The password always
// travels in a private file, never on the tool's command line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "image/ImageTestSupport.h"
#include "support/TempHome.h"
#include "vault/QVCrypto.h"

using namespace qv;
using namespace qv::test;

namespace {

class ScryptTool : public ::testing::Test {
protected:
    void SetUp() override {
        if (::access("/usr/bin/scrypt", X_OK) != 0) GTEST_SKIP() << "/usr/bin/scrypt is not installed";
        put("pass", password);  // private: the directory is the owner's alone
    }
    ~ScryptTool() override { std::filesystem::remove_all(dir); }

    std::string at(const std::string& name) const { return dir + "/" + name; }
    void put(const std::string& name, const std::string& bytes) { writeFileSynced(at(name), bytes); }
    void put(const std::string& name, const Bytes& b) { put(name, std::string(b.begin(), b.end())); }
    Bytes get(const std::string& name) { const std::string s = readFile(at(name)); return Bytes(s.begin(), s.end()); }
    // scrypt <verb> --passphrase file:<pass> <extra> <in> <out>
    CommandResult tool(const std::string& verb, std::vector<std::string> args, const std::string& in,
                       const std::string& out) {
        std::filesystem::remove(at(out));
        args.insert(args.begin(), {"/usr/bin/scrypt", verb, "--passphrase", "file:" + at("pass")});
        args.insert(args.end(), {at(in), at(out)});
        return runCommand(args);
    }

    const std::string dir = makeTempDir("qvscrypt");
    const std::string password = "tool \xc3\xa9 password";
};

} // namespace

TEST_F(ScryptTool, DecryptsOurContainers) {
    // Empty, and long enough to run the counter through many blocks.
    for (size_t n : {size_t{0}, size_t{(1 << 20) + 13}}) {
        const Bytes plain = QVCrypto::randomDataOfLength(n, 0, 255);
        put("ours", *QVCrypto::encryptWithString(plain, password));
        CommandResult r = tool("dec", {}, "ours", "out");
        ASSERT_EQ(r.exitCode, 0) << n << ": " << r.describe();
        EXPECT_EQ(get("out"), plain) << n;
    }
}

TEST_F(ScryptTool, WeDecryptTheToolsContainers) {
    for (auto [logN, r, p] : {std::tuple{10, 8, 1}, std::tuple{12, 1, 3}}) {
        const Bytes plain = QVCrypto::randomDataOfLength(5000 + logN, 0, 255);
        put("plain", plain);
        const std::vector<std::string> costs = {"--logN", std::to_string(logN), "-r", std::to_string(r), "-p",
                                                std::to_string(p)};
        CommandResult result = tool("enc", costs, "plain", "theirs");
        ASSERT_EQ(result.exitCode, 0) << result.describe();
        const Bytes c = get("theirs");
        ASSERT_EQ(c.size(), plain.size() + 128);
        EXPECT_EQ(QVCrypto::decryptWithString(c, password), plain) << logN;
        EXPECT_FALSE(QVCrypto::decryptWithString(c, password + "x"));
    }
}
