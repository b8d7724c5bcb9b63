// The rules of image creation and mounting that need no mount: the capacity and
// free-space rules, the helper's argument vectors word for word, the copy's
// status line, the parsing of the helper's answers, the diskinfo file and where
// the helpers are looked for.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "disk/DiskInfoFile.h"
#include "disk/DiskMaster.h"
#include "disk/StorageLocations.h"
#include "disk/ToolPaths.h"
#include "disk/TreeCompare.h"
#include "support/QtApp.h"
#include "support/TempHome.h"
#include "toolkit/AtomicFile.h"
#include "vault/PropertyList.h"
#include "vault/Schemas.h"

namespace fs = std::filesystem;
using namespace qv;

namespace {

constexpr uint64_t GiB = 1ULL << 30;

// A folder at `mountpoint` whose image settings are filled in.
QVRecordRef folderWithImage(const std::string& mountpoint, const std::string& image, const Value& capacity) {
    QVRecordRef folder = QVFolderCreate(QVStorageMake("Default", URLValue{"/tmp"}), URLValue{mountpoint});
    QVRecordRef diskinfo = QVRecordForProtocol(DiskInfo);
    DiskInfoRef d{diskinfo};
    d.setUrl(Value::url(image));
    d.setEncryption(Value("AES-256"));
    d.setFilesystem(Value("HFS+J"));
    d.setCapacity(capacity);
    FolderRef{folder}.setDiskinfo(Value(diskinfo));
    return folder;
}

// Sets an environment variable for one scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        if (value)
            ::setenv(name, value, 1);
        else
            ::unsetenv(name);
    }
    ~ScopedEnv() {
        if (old_)
            ::setenv(name_, old_->c_str(), 1);
        else
            ::unsetenv(name_);
    }

private:
    const char* name_;
    std::optional<std::string> old_;
};

} // namespace

TEST(DiskMasterRules, CapacityIsTenTimesTheFolderButAtLeastTenGiB) {
    EXPECT_EQ(DiskMaster::defaultCapacityForFolderSize(0), 10 * GiB);
    EXPECT_EQ(DiskMaster::defaultCapacityForFolderSize(GiB), 10 * GiB);
    EXPECT_EQ(DiskMaster::defaultCapacityForFolderSize(GiB + 1), 10 * GiB + 10);
    EXPECT_EQ(DiskMaster::defaultCapacityForFolderSize(2 * GiB), 20 * GiB);
    EXPECT_EQ(DiskMaster::defaultCapacityForFolderSize(UINT64_MAX / 5), UINT64_MAX) << "saturates, never wraps";
}

TEST(DiskMasterRules, FreeSpaceMustHoldTheFolderAndOneHundredMiBMore) {
    const uint64_t size = 5 * GiB;
    const int64_t exact = int64_t(size + 104857600);
    EXPECT_EQ(DiskMaster::spaceShortfall(exact, size), 0u) << "equality passes";
    EXPECT_EQ(DiskMaster::spaceShortfall(exact - 1, size), 1u);
    EXPECT_EQ(DiskMaster::spaceShortfall(0, 0), 104857600u);
    EXPECT_EQ(DiskMaster::spaceShortfall(INT64_MAX, UINT64_MAX), (uint64_t(1) << 63) + 104857600u)
        << "no overflow at the far end";
    EXPECT_EQ(DiskMaster::spaceShortfall(-1, UINT64_MAX), UINT64_MAX) << "saturates";
}

TEST(DiskMasterRules, CreateArgumentsWordForWord) {
    QVRecordRef folder = folderWithImage("/home/ann/My Secrets/", "/data/A-1.sparsebundle", Value(10737418241ULL));
    QVError error;
    EXPECT_EQ(DiskMaster::createArgumentsForFolder(folder, &error),
              (std::vector<std::string>{"create", "-encryption", "AES-256", "-stdinpass", "-size", "10240m", "-type",
                                        "SPARSEBUNDLE", "-volname", "My Secrets", "-fs", "HFS+J", "-ov",
                                        "/data/A-1.sparsebundle"}))
        << "whole MiB, rounded down; the volume is named after the folder";
    DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.setCapacity(Value(20 * GiB - 1));
    EXPECT_EQ(DiskMaster::createArgumentsForFolder(folder, &error)[5], "20479m");

    // Incomplete settings give no vector at all rather than a create with holes.
    for (const char* field : {"encryption", "filesystem", "capacity", "url"}) {
        QVRecordRef broken = folderWithImage("/home/ann/X", "/data/x.sparsebundle", Value(GiB));
        FolderRef{broken}.diskinfo().as<QVRecord>()->setNilValueForKey(field);
        error = QVError();
        EXPECT_TRUE(DiskMaster::createArgumentsForFolder(broken, &error).empty()) << field;
        EXPECT_EQ(error.code, 1001) << field;
    }
    QVRecordRef negative = folderWithImage("/home/ann/X", "/data/x.sparsebundle", Value(-1));
    EXPECT_TRUE(DiskMaster::createArgumentsForFolder(negative, nullptr).empty());
    EXPECT_TRUE(DiskMaster::createArgumentsForFolder(nullptr, nullptr).empty());
}

TEST(DiskMasterRules, AttachArgumentsHaveSevenWordsOrEightWhenSilent) {
    const auto loud = DiskMaster::attachArgumentsForImage("/d/i.sparsebundle", "/home/ann/F", false);
    EXPECT_EQ(loud, (std::vector<std::string>{"attach", "/d/i.sparsebundle", "-mountpoint", "/home/ann/F", "-noverify",
                                              "-noautofsck", "-stdinpass"}));
    auto silent = DiskMaster::attachArgumentsForImage("/d/i.sparsebundle", "/home/ann/F", true);
    ASSERT_EQ(silent.size(), 8u);
    EXPECT_EQ(silent.back(), "-nobrowse");
    silent.pop_back();
    EXPECT_EQ(silent, loud);
}

TEST(DiskMasterRules, CopyStatusComparesTheLowThirtyTwoBits) {
    EXPECT_EQ(DiskMaster::copyStatusText(200, 10, 100), "Time left: seconds") << "done beyond the measured size";
    EXPECT_EQ(DiskMaster::copyStatusText(0, 1, 125), "Time left: 2 minutes 5 seconds");
    EXPECT_EQ(DiskMaster::copyStatusText(50, 0, 100), std::nullopt) << "no throughput, no estimate";
    // 4 GiB + 10 bytes wraps to 10, which does not exceed 100: the estimate is
    // made from the whole numbers and is negative, so it reads "unknown".
    EXPECT_EQ(DiskMaster::copyStatusText((1ULL << 32) + 10, 1, 100), "Time left: unknown");
    // Past 4 GiB a copy of a large folder still gets an estimate while the low
    // bits stay below the size.
    EXPECT_EQ(DiskMaster::copyStatusText((1ULL << 32) + 10, 1e9, 6 * GiB),
              "Time left: " + std::string("2 seconds"));
}

TEST(DiskMasterRules, CancelBlockShowsProgressAndAnswersTheFacesCancelFlag) {
    QVRecordRef face = QVFolderFaceCreate(folderWithImage("/nowhere/F", "/nowhere/i", Value(GiB)));
    QVCopyCancelBlock block = DiskMaster::copyCancelBlockForFolderFace(face, 1000);
    QVCopyStatus status;
    status.bytesCompleted = 250;
    status.throughput = 25;
    test::qtApp();
    EXPECT_FALSE(block(0, status));
    EXPECT_TRUE(test::processEventsUntil([&] { return FolderFaceRef{face}.progressPercentage().toDouble() == 0.25; }))
        << "posted to the main thread";
    EXPECT_EQ(FolderFaceRef{face}.statusText().toString(), "Time left: 30 seconds");
    FolderFaceRef{face}.setOpCanceled(Value(true));
    EXPECT_TRUE(block(5, status)) << "an error code still answers the flag";
    test::processEventsFor(20);
    EXPECT_DOUBLE_EQ(FolderFaceRef{face}.progressPercentage().toDouble(), 0.0) << "an error carries no amounts";
    EXPECT_FALSE(DiskMaster::copyCancelBlockForFolderFace(nullptr, 0)(0, status));
}

TEST(DiskMasterRules, HelperAnswersAreParsedStrictly) {
    auto holder = DiskMaster::holderFromDetachMessage("qv-image: /home/a/F is busy: held by bash (pid 4242)\n");
    ASSERT_TRUE(holder);
    EXPECT_EQ(holder->pid, 4242);
    EXPECT_EQ(holder->name, "bash");
    holder = DiskMaster::holderFromDetachMessage("qv-image: /m/held by x is busy: held by Web Content (pid 7)");
    ASSERT_TRUE(holder) << "a mount point that holds the words";
    EXPECT_EQ(holder->name, "Web Content");
    EXPECT_EQ(holder->pid, 7);
    for (const char* bad : {"qv-image: /m is busy", "held by x (pid )", "held by x (pid 0)", "held by x (pid 12",
                            "held by x (pid 99999999999999)", ""})
        EXPECT_FALSE(DiskMaster::holderFromDetachMessage(bad)) << bad;

    auto entity = [](Value mountable, Value dev) {
        Dict d;
        d["potentially-mountable"] = mountable;
        d["dev-entry"] = dev;
        return Value::newDict(std::move(d));
    };
    auto plist = [](Array entities) {
        Dict top;
        top["system-entities"] = Value::newArray(std::move(entities));
        return Value::newDict(std::move(top));
    };
    EXPECT_EQ(DiskMaster::devEntryFromAttachPlist(plist({entity(false, "/a"), entity(true, "/b"), entity(true, "/c")})),
              "/b");
    EXPECT_EQ(DiskMaster::devEntryFromAttachPlist(plist({entity(true, Value())})), std::nullopt);
    EXPECT_EQ(DiskMaster::devEntryFromAttachPlist(plist({entity(false, "/a")})), std::nullopt);
    EXPECT_EQ(DiskMaster::devEntryFromAttachPlist(Value("text")), std::nullopt);
}

TEST(DiskMasterRules, DiskInfoFileRecordsTheSettingsAndPasswordButNotTheLocation) {
    const std::string dir = test::makeTempDir("qvdiskinfo");
    const std::string image = dir + "/X.sparsebundle";
    fs::create_directories(image);
    QVRecordRef folder = folderWithImage("/home/ann/F", image, Value(20 * GiB));
    const Bytes wrapped{0x73, 0x63, 0x72, 0x79, 0x70, 0x74, 0x00, 0xff};
    FolderRef{folder}.setPassword(Value(wrapped));

    ASSERT_EQ(QVDiskInfoSerializeFromFolder(folder), std::nullopt);
    QVError error;
    DictRef read = QVDiskInfoRead(image, &error);
    ASSERT_TRUE(read) << error.description;
    EXPECT_EQ(read->size(), 5u);
    EXPECT_FALSE(read->count("url"));
    EXPECT_EQ(QVDictGet(*read, "encryption").toString(), "AES-256");
    EXPECT_EQ(QVDictGet(*read, "filesystem").toString(), "HFS+J");
    EXPECT_EQ(uint64_t(QVDictGet(*read, "capacity").toInt()), 20 * GiB);
    EXPECT_EQ(QVDictGet(*read, "password").toData(), wrapped);
    EXPECT_EQ(QVDictGet(*read, "version").toInt(), 1);
    const std::string text = test::readWhole(image + "/diskinfo");
    EXPECT_NE(text.find("<?xml"), std::string::npos) << "an XML property list";
    EXPECT_EQ(fs::status(image + "/diskinfo").permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);

    // No password yet: the empty string. A second write replaces the first whole.
    FolderRef{folder}.setPassword(Value());
    ASSERT_EQ(QVDiskInfoSerializeFromFolder(folder), std::nullopt);
    EXPECT_EQ(QVDictGet(*QVDiskInfoRead(image, nullptr), "password").toString(), "");
    EXPECT_EQ(fs::directory_iterator(image)->path().filename(), "diskinfo") << "no temporary file left";

    // A record with a hole, or an image directory that is gone, is an error and writes nothing.
    DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.setFilesystem(Value());
    auto failed = QVDiskInfoSerializeFromFolder(folder);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, 1001);
    EXPECT_EQ(QVDictGet(*QVDiskInfoRead(image, nullptr), "filesystem").toString(), "HFS+J") << "old file kept";
    QVRecordRef elsewhere = folderWithImage("/home/ann/F", dir + "/missing.sparsebundle", Value(GiB));
    EXPECT_TRUE(QVDiskInfoSerializeFromFolder(elsewhere));
    EXPECT_FALSE(fs::exists(dir + "/missing.sparsebundle"));
    fs::remove_all(dir);
}

TEST(DiskMasterRules, DiskInfoFilesOfOtherVersionsAreTold) {
    // The frozen sample of format 1 keeps opening.
    QVError error;
    DictRef sample = QVDiskInfoRead(std::string(QV_FIXTURES_DIR) + "/diskinfo-v1.sparsebundle", &error);
    ASSERT_TRUE(sample) << error.description;
    EXPECT_EQ(QVDictGet(*sample, "version").toInt(), 1);
    EXPECT_EQ(QVDictGet(*sample, "encryption").toString(), "AES-256");
    EXPECT_EQ(QVDictGet(*sample, "filesystem").toString(), "HFS+J");
    EXPECT_EQ(QVDictGet(*sample, "capacity").toInt(), 10737418240);
    EXPECT_TRUE(QVDictGet(*sample, "password").isData());

    const std::string dir = test::makeTempDir("qvdiskinfo");
    auto write = [&](const Value& v) {
        auto xml = QVPropertyListToXML(v);
        ASSERT_TRUE(xml);
        ASSERT_TRUE(QVWriteFileAtomically(dir + "/diskinfo", *xml, nullptr));
    };
    write(Value::newDict({{"version", Value(2)}, {"encryption", Value("AES-256")}}));
    EXPECT_FALSE(QVDiskInfoRead(dir, &error));
    EXPECT_NE(error.description.find("newer version"), std::string::npos) << error.description;
    write(Value::newDict({{"encryption", Value("AES-256")}}));
    EXPECT_FALSE(QVDiskInfoRead(dir, &error)) << "no version";
    write(Value::newArray({Value(1)}));
    EXPECT_FALSE(QVDiskInfoRead(dir, &error)) << "not a dictionary";
    fs::remove(dir + "/diskinfo");
    EXPECT_FALSE(QVDiskInfoRead(dir, &error)) << "missing";
    fs::remove_all(dir);
}

TEST(DiskMasterRules, ToolsAreFoundByAbsolutePath) {
    {
        ScopedEnv env("QV_TOOL_DIR", "/opt/qv/build/src/");
        EXPECT_EQ(QVToolPath("qv-image"), "/opt/qv/build/src/qv-image") << "even when it is not there";
        EXPECT_FALSE(QVToolExists("qv-image"));
    }
    {
        ScopedEnv env("QV_TOOL_DIR", "relative/dir");
        EXPECT_EQ(QVToolPath("qv-index"), fs::current_path().string() + "/relative/dir/qv-index");
    }
    ScopedEnv env("QV_TOOL_DIR", nullptr);
    // Beside the running program first, then the system's directories.
    const std::string here = fs::read_symlink("/proc/self/exe").parent_path().string();
    const std::string self = fs::read_symlink("/proc/self/exe").filename().string();
    EXPECT_EQ(QVToolPath(self), here + "/" + self);
    EXPECT_EQ(QVToolPath("sh"), fs::exists("/usr/local/bin/sh") ? "/usr/local/bin/sh" : "/usr/bin/sh");
    EXPECT_EQ(QVToolPath("no-such-tool-here"), "/usr/bin/no-such-tool-here");
}
