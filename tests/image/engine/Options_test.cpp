// The words of a qv-image verb: options in any order around one path, sizes,
// the password on standard input. Every refusal is a usage error (exit 2).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "image/Options.h"
#include "support/TempHome.h"
#include "toolkit/AtomicFile.h"

using namespace qv;
using namespace qv::image;

namespace {

const std::set<std::string> kFlags = {"-force", "-plist"};
const std::set<std::string> kValued = {"-mountpoint", "-size"};

// The refusal of `args`, as text; empty when they were taken.
std::string refusal(const std::vector<std::string>& args) {
    ParsedArguments parsed;
    QVError error;
    if (parseArguments(args, kFlags, kValued, &parsed, &error)) return {};
    EXPECT_EQ(error.domain, kImageErrorDomain);
    EXPECT_EQ(error.code, QVImageExitUsage) << error.description;
    return error.description;
}

// readPasswordFromStdin with standard input read from a file holding `input`.
class StdinFrom {
public:
    explicit StdinFrom(const std::string& input) : dir_(test::makeTempDir("qv-stdin")) {
        const std::string path = dir_ + "/stdin";
        EXPECT_TRUE(QVWriteFileAtomically(path, std::vector<uint8_t>(input.begin(), input.end()), nullptr));
        saved_ = ::dup(STDIN_FILENO);
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        ::dup2(fd, STDIN_FILENO);
        ::close(fd);
    }
    ~StdinFrom() {
        ::dup2(saved_, STDIN_FILENO);
        ::close(saved_);
        std::filesystem::remove_all(dir_);
    }

private:
    std::string dir_;
    int saved_ = -1;
};

} // namespace

TEST(ImageOptions, OptionsComeInAnyOrderAroundOnePath) {
    ParsedArguments parsed;
    QVError error;
    ASSERT_TRUE(parseArguments({"-plist", "img", "-size", "64m", "-force"}, kFlags, kValued, &parsed, &error))
        << error.description;
    EXPECT_EQ(parsed.positional, "img");
    EXPECT_TRUE(parsed.has("-plist"));
    EXPECT_TRUE(parsed.has("-force"));
    ASSERT_NE(parsed.value("-size"), nullptr);
    EXPECT_EQ(*parsed.value("-size"), "64m");
    EXPECT_EQ(parsed.value("-mountpoint"), nullptr);
    // A value is the next word whatever it looks like, also one that starts with '-'.
    ASSERT_TRUE(parseArguments({"-mountpoint", "-odd", "img"}, kFlags, kValued, &parsed, &error));
    EXPECT_EQ(*parsed.value("-mountpoint"), "-odd");
    EXPECT_FALSE(parsed.has("-plist")) << "nothing left from the first parse";
}

TEST(ImageOptions, MalformedWordsAreUsageErrors) {
    EXPECT_NE(refusal({"img", "-verbose"}).find("unknown option -verbose"), std::string::npos);
    EXPECT_NE(refusal({"-plist", "img", "-plist"}).find("given twice"), std::string::npos);
    EXPECT_NE(refusal({"-size", "1g", "img", "-size", "2g"}).find("given twice"), std::string::npos);
    EXPECT_NE(refusal({"img", "-size"}).find("needs a value"), std::string::npos);
    EXPECT_NE(refusal({"img", "other"}).find("unexpected argument 'other'"), std::string::npos);
    EXPECT_NE(refusal({"-plist"}).find("missing path"), std::string::npos);
    EXPECT_NE(refusal({}).find("missing path"), std::string::npos);
    EXPECT_NE(refusal({""}).find("empty path"), std::string::npos);
}

TEST(ImageOptions, SizeWords) {
    EXPECT_EQ(parseSizeWord("0"), 0u);
    EXPECT_EQ(parseSizeWord("4096"), 4096u);
    EXPECT_EQ(parseSizeWord("64m"), 64ull << 20);
    EXPECT_EQ(parseSizeWord("64M"), 64ull << 20);
    EXPECT_EQ(parseSizeWord("3g"), 3ull << 30);
    EXPECT_EQ(parseSizeWord("3G"), 3ull << 30);
    EXPECT_EQ(parseSizeWord("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(parseSizeWord("17179869183g"), 17179869183ull << 30) << "the largest that fits";
    for (const char* bad : {"", "m", "-1", "+1", "1.5g", "1 g", " 1", "1k", "1t", "1mb", "0x10", "18446744073709551616",
                            "17179869184g", "17592186044416m"})
        EXPECT_FALSE(parseSizeWord(bad)) << "'" << bad << "'";
}

TEST(ImageOptions, ImageSizesAreWholeSectorsWithinTheImageBounds) {
    uint64_t bytes = 0;
    QVError error;
    ASSERT_TRUE(parseImageSize("16m", &bytes, &error)) << error.description;
    EXPECT_EQ(bytes, kMinImageSize);
    ASSERT_TRUE(parseImageSize(std::to_string(kMinImageSize + 4095), &bytes, &error));
    EXPECT_EQ(bytes, kMinImageSize) << "rounded down to a sector";
    ASSERT_TRUE(parseImageSize(std::to_string(kMaxImageSize + 4095), &bytes, &error));
    EXPECT_EQ(bytes, kMaxImageSize);
    for (const std::string& bad : {std::string("16777215"), std::string("15m"), std::to_string(kMaxImageSize + 4096),
                                   std::string("16384g"), std::string("lots")}) {
        error = {};
        EXPECT_FALSE(parseImageSize(bad, &bytes, &error)) << bad;
        EXPECT_EQ(error.code, QVImageExitUsage) << bad;
        EXPECT_NE(error.description.find(bad), std::string::npos) << error.description;
    }
}

TEST(ImageOptions, HumanSizes) {
    EXPECT_EQ(humanSize(0), "0 bytes");
    EXPECT_EQ(humanSize(1023), "1023 bytes");
    EXPECT_EQ(humanSize(1536), "1.5 KiB");
    EXPECT_EQ(humanSize(16ull << 20), "16.0 MiB");
    EXPECT_EQ(humanSize(kMaxImageSize), "16.0 TiB");
    EXPECT_EQ(humanSize(UINT64_MAX), "16.0 EiB");
}

TEST(ImageOptions, ThePasswordIsEveryByteOfStandardInput) {
    {
        const std::string given("pass\nword\0\n", 11);
        StdinFrom input(given);
        SecureBytes password;
        QVError error;
        ASSERT_TRUE(readPasswordFromStdin(&password, &error)) << error.description;
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(password.data()), password.size()), given);
    }
    for (const std::string& bad : {std::string(), std::string(64 * 1024 + 1, 'p')}) {
        StdinFrom input(bad);
        SecureBytes password;
        QVError error;
        EXPECT_FALSE(readPasswordFromStdin(&password, &error)) << bad.size();
        EXPECT_EQ(error.code, QVImageExitUsage) << bad.size();
        EXPECT_TRUE(password.empty());
    }
    StdinFrom input(std::string(64 * 1024, 'p'));
    SecureBytes password;
    EXPECT_TRUE(readPasswordFromStdin(&password, nullptr)) << "the longest password taken";
    EXPECT_EQ(password.size(), 64u * 1024);
}
