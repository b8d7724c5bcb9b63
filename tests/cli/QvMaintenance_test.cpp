// qv's image maintenance as a user runs it, on real images: compaction gives
// back the space of deleted files, a resize keeps every file and grows the
// capacity, a failed qv-image step leaves the folder unlocked as it was, a
// moved image still unlocks, indexing goes off and on, and an image made
// elsewhere is imported where it lies with its own password.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "cli/CliSupport.h"

namespace fs = std::filesystem;
using namespace qv::test;

namespace {

// The lines of `qv info`: field -> value.
std::map<std::string, std::string> infoOf(const QvUser& user, const std::string& folder) {
    const auto r = user.qv({"info", folder});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    std::map<std::string, std::string> fields;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        const auto tab = line.find('\t');
        if (tab != std::string::npos) fields[line.substr(0, tab)] = line.substr(tab + 1);
    }
    return fields;
}

// The user's files: lost+found belongs to the volume's engine.
TreeSnapshot filesOf(const std::string& folder) {
    TreeSnapshot snapshot = snapshotTree(folder);
    std::erase_if(snapshot, [](const auto& entry) { return entry.first.rfind("lost+found", 0) == 0; });
    return snapshot;
}

long long number(const std::string& text) { return text.empty() ? -1 : std::stoll(text); }

// A user with a set and an encrypted folder holding a few files and a large one.
struct Protected : QvUser {
    std::string folder = home + "/Papers";
    Protected(const ImageSandbox& sandbox, const std::string& name) : QvUser(sandbox, name, "maintenance set") {
        fs::create_directories(folder + "/sub");
        writeFileSynced(folder + "/note.txt", "keep me");
        writeFileSynced(folder + "/sub/data.bin", patternBytes(7, 1 << 20));
        writeFileSynced(folder + "/large.bin", patternBytes(3, 40 << 20));
        EXPECT_EQ(qv({"set", "create"}).exitCode, 0);
        const auto r = qv({"encrypt", folder});
        EXPECT_EQ(r.exitCode, 0) << r.err;
    }
    std::string state() const { return stateOf(qv({"status"}).out, folder); }
};

} // namespace

TEST(QvMaintenance, CompactGivesBackDeletedSpaceAndResizeGrowsKeepingEveryFile) {
    ImageSandbox sandbox;
    Protected user(sandbox, "compact");
    ASSERT_EQ(user.qv({"unlock", user.folder}).exitCode, 0);
    fs::remove(user.folder + "/large.bin");
    const TreeSnapshot kept = filesOf(user.folder);
    const long long before = number(infoOf(user, user.folder)["size on disk"]);

    auto r = user.qv({"compact", user.folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.rfind("compacted\t", 0), 0u) << r.out;
    auto info = infoOf(user, user.folder);
    EXPECT_LT(number(info["size on disk"]), before - (32LL << 20)) << "the deleted file's bands went back";
    EXPECT_EQ(info["state"], "unlocked") << "locked for the work, unlocked after it";
    EXPECT_EQ(diffSnapshots(kept, filesOf(user.folder)), "");

    const long long capacity = number(info["capacity"]);
    r = user.qv({"resize", user.folder, "20G"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    info = infoOf(user, user.folder);
    EXPECT_GT(number(info["capacity"]), capacity);
    EXPECT_EQ(info["state"], "unlocked");
    EXPECT_EQ(diffSnapshots(kept, filesOf(user.folder)), "");
    EXPECT_EQ(user.qv({"resize", user.folder, "5G"}).exitCode, 4) << "an image only grows";

    // qv-image refuses a size beyond its limit: the folder is unlocked again
    // all the same, and the image as it was.
    r = user.qv({"resize", user.folder, "20T"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_EQ(user.state(), "unlocked");
    EXPECT_EQ(number(infoOf(user, user.folder)["capacity"]), number(info["capacity"]));
    EXPECT_EQ(diffSnapshots(kept, filesOf(user.folder)), "");

    // A program working in the folder holds the lock back: the compaction
    // stops there, names it, and the image is not touched.
    struct Holder {
        pid_t pid;
        ~Holder() { stopChild(pid); }
    } holder{startHolder({"sleep", "600"}, user.folder + "/sub")};
    r = user.qv({"compact", user.folder});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_NE(r.err.find("Application sleep prevented Papers from locking"), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("Compacting"), std::string::npos) << r.err;
    EXPECT_EQ(user.state(), "unlocked");
}

TEST(QvMaintenance, AMovedImageStillUnlocksAndIndexingGoesOffAndOn) {
    ImageSandbox sandbox;
    Protected user(sandbox, "move");
    const std::string image = infoOf(user, user.folder)["image"];
    const std::string elsewhere = sandbox.makeDir("move/Other Disk");
    ASSERT_EQ(user.qv({"unlock", user.folder}).exitCode, 0);
    EXPECT_EQ(user.qv({"move", user.folder, elsewhere}).exitCode, 4) << "an unlocked folder's image is in use";

    // Indexing: the state, then off (markers at the volume's root), then on.
    auto r = user.qv({"index", user.folder});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "enabled\t" + user.folder + "\n");
    r = user.qv({"index", user.folder, "off"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "disabled\t" + user.folder + "\n");
    EXPECT_TRUE(fs::exists(user.folder + "/.trackerignore"));
    EXPECT_EQ(infoOf(user, user.folder)["indexing"], "disabled");
    EXPECT_EQ(user.qv({"index", user.folder, "on"}).out, "enabled\t" + user.folder + "\n");
    EXPECT_FALSE(fs::exists(user.folder + "/.trackerignore"));
    EXPECT_EQ(user.qv({"index", user.folder, "sideways"}).exitCode, 2);

    ASSERT_EQ(user.qv({"lock", user.folder}).exitCode, 0);
    EXPECT_EQ(user.qv({"index", user.folder}).exitCode, 4) << "a locked folder has no volume to ask";
    r = user.qv({"move", user.folder, elsewhere});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const std::string moved = elsewhere + "/" + fs::path(image).filename().string();
    EXPECT_EQ(r.out, "moved\t" + moved + "\t" + user.folder + "\n");
    EXPECT_FALSE(fs::exists(image));
    EXPECT_EQ(infoOf(user, user.folder)["image"], moved);
    ASSERT_EQ(user.qv({"unlock", user.folder}).exitCode, 0);
    EXPECT_EQ(readFile(user.folder + "/note.txt"), "keep me");
    EXPECT_EQ(user.qv({"lock", user.folder}).exitCode, 0);
}

TEST(QvImport, AnImageMadeElsewhereJoinsWithItsOwnPasswordWhereItLies) {
    ImageSandbox sandbox;
    QvUser user(sandbox, "import", "import set");
    ASSERT_EQ(user.qv({"set", "create"}).exitCode, 0);
    const std::string image = user.home + "/Old/Archive.sparsebundle";
    fs::create_directories(user.home + "/Old");
    ASSERT_EQ(sandbox.create(image, "image secret", 64).exitCode, 0);
    const std::string scratch = sandbox.makeDir("import/scratch");
    ASSERT_EQ(sandbox.attach(image, scratch, "image secret").exitCode, 0);
    writeFileSynced(scratch + "/letter.txt", "dear user");
    ASSERT_EQ(sandbox.detach(scratch).exitCode, 0);
    const std::string folder = user.home + "/Archive";
    fs::create_directories(folder);

    auto r = user.qv({"import", image, folder}, user.password + "\nimage secreT\n");
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_NE(r.err.find("Invalid Password"), std::string::npos) << r.err;
    EXPECT_EQ(user.qv({"folders"}).out, "") << "a refused import makes no folder";
    std::ofstream(folder + "/stray.txt") << "x";
    EXPECT_EQ(user.qv({"import", image, folder}, user.password + "\nimage secret\n").exitCode, 4)
        << "a folder with files can't be the mount point";
    fs::remove(folder + "/stray.txt");

    r = user.qv({"import", image, folder}, user.password + "\nimage secret\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "imported\t" + folder + "\n");
    EXPECT_EQ(user.qv({"folders"}).out, folder + "\n");
    EXPECT_EQ(infoOf(user, folder)["image"], image) << "the image is neither moved nor renamed";
    EXPECT_EQ(user.qv({"import", image, sandbox.makeDir("import/again")}, user.password + "\nimage secret\n").exitCode,
              4)
        << "an image that is a folder's already";

    ASSERT_EQ(user.qv({"unlock", folder}).exitCode, 0);
    EXPECT_EQ(readFile(folder + "/letter.txt"), "dear user");
    ASSERT_EQ(user.qv({"lock", folder}).exitCode, 0);
    // The image still opens with the password the user typed.
    const std::string check = sandbox.makeDir("import/check");
    ASSERT_EQ(sandbox.attach(image, check, "image secret").exitCode, 0);
    EXPECT_EQ(sandbox.detach(check).exitCode, 0);

    // qv encrypt of an image imports it with an empty folder beside it.
    const std::string second = user.home + "/Old/Second.sparsebundle";
    ASSERT_EQ(sandbox.create(second, "second secret", 32).exitCode, 0);
    r = user.qv({"encrypt", second}, user.password + "\nsecond secret\n");
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "imported\t" + user.home + "/Old/Second\n");
    EXPECT_TRUE(fs::exists(second + "/Info.plist")) << "not encrypted as an ordinary folder";
}
