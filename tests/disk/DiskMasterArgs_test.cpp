// The rules of image creation and mounting that need no mount: the capacity and
// free-space rules, the helper's argument vectors word for word, the copy's
// status line, the parsing of the helper's answers, the diskinfo file and where
// the helpers are looked for.
#include <gtest/gtest.h>

#include <filesystem>

#include "automation/AutomationTestSupport.h"
#include "disk/FolderState.h"
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

} // namespace

TEST(DiskMasterRules, CapacityAndFreeSpaceRulesSaturateInsteadOfWrapping) {
    EXPECT_EQ(DiskMaster::defaultCapacityForFolderSize(GiB), 10 * GiB);
    EXPECT_EQ(DiskMaster::defaultCapacityForFolderSize(GiB + 1), 10 * GiB + 10);
    EXPECT_EQ(DiskMaster::defaultCapacityForFolderSize(UINT64_MAX / 5), UINT64_MAX);
    const uint64_t size = 5 * GiB;
    const int64_t exact = int64_t(size + 104857600);
    EXPECT_EQ(DiskMaster::spaceShortfall(exact, size), 0u) << "equality passes";
    EXPECT_EQ(DiskMaster::spaceShortfall(exact - 1, size), 1u);
    EXPECT_EQ(DiskMaster::spaceShortfall(INT64_MAX, UINT64_MAX), (uint64_t(1) << 63) + 104857600u);
    EXPECT_EQ(DiskMaster::spaceShortfall(-1, UINT64_MAX), UINT64_MAX);
}

TEST(DiskMasterRules, HelperArgumentsWordForWord) {
    QVRecordRef folder = folderWithImage("/home/ann/My Secrets/", "/data/A-1.sparsebundle", Value(10737418241ULL));
    QVError error;
    EXPECT_EQ(DiskMaster::createArgumentsForFolder(folder, &error),
              (std::vector<std::string>{"create", "-encryption", "AES-256", "-stdinpass", "-size", "10240m", "-type",
                                        "SPARSEBUNDLE", "-volname", "My Secrets", "-fs", "HFS+J", "-ov",
                                        "/data/A-1.sparsebundle"}))
        << "whole MiB, rounded down; the volume is named after the folder";
    // Incomplete settings give no vector at all rather than a create with holes.
    for (const char* field : {"encryption", "capacity", "url"}) {
        QVRecordRef broken = folderWithImage("/home/ann/X", "/data/x.sparsebundle", Value(GiB));
        FolderRef{broken}.diskinfo().as<QVRecord>()->setNilValueForKey(field);
        EXPECT_TRUE(DiskMaster::createArgumentsForFolder(broken, &error).empty()) << field;
        EXPECT_EQ(error.code, 1001) << field;
    }
    EXPECT_TRUE(DiskMaster::createArgumentsForFolder(folderWithImage("/a/X", "/x", Value(-1)), nullptr).empty());

    auto attach = DiskMaster::attachArgumentsForImage("/d/i.sparsebundle", "/home/ann/F", true);
    EXPECT_EQ(attach, (std::vector<std::string>{"attach", "/d/i.sparsebundle", "-mountpoint", "/home/ann/F",
                                                "-noverify", "-noautofsck", "-stdinpass", "-nobrowse"}));
    attach.pop_back();
    EXPECT_EQ(DiskMaster::attachArgumentsForImage("/d/i.sparsebundle", "/home/ann/F", false), attach);
}

TEST(DiskMasterRules, CopyStatusAndTheCancelBlock) {
    EXPECT_EQ(DiskMaster::copyStatusText(50, 0, 100), std::nullopt) << "no throughput, no estimate";
    // The low 32 bits are compared: past 4 GiB the estimate can come out negative.
    EXPECT_EQ(DiskMaster::copyStatusText((1ULL << 32) + 10, 1, 100), "Time left: unknown");
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
    EXPECT_FALSE(DiskMaster::copyCancelBlockForFolderFace(nullptr, 0)(0, status));
}

TEST(DiskMasterRules, HelperAnswersAreParsedStrictly) {
    auto holder = DiskMaster::holderFromDetachMessage("qv-image: /m/held by x is busy: held by Web Content (pid 7)\n");
    ASSERT_TRUE(holder) << "a mount point that holds the words";
    EXPECT_EQ(holder->name, "Web Content");
    EXPECT_EQ(holder->pid, 7);
    for (const char* bad : {"qv-image: /m is busy", "held by x (pid 0)", "held by x (pid 12",
                            "held by x (pid 99999999999999)"})
        EXPECT_FALSE(DiskMaster::holderFromDetachMessage(bad)) << bad;

    auto entity = [](Value mountable, Value dev) {
        return Value::newDict({{"potentially-mountable", mountable}, {"dev-entry", dev}});
    };
    auto plist = [](Array entities) { return Value::newDict({{"system-entities", Value::newArray(std::move(entities))}}); };
    EXPECT_EQ(DiskMaster::devEntryFromAttachPlist(plist({entity(false, "/a"), entity(true, "/b"), entity(true, "/c")})),
              "/b");
    EXPECT_EQ(DiskMaster::devEntryFromAttachPlist(plist({entity(true, Value())})), std::nullopt);
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
    EXPECT_EQ(QVDictGet(*read, "password").toData(), wrapped);
    EXPECT_EQ(QVDictGet(*read, "version").toInt(), 1);
    EXPECT_EQ(fs::status(image + "/diskinfo").permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);

    // A record with a hole, or an image directory that is gone, is an error and writes nothing.
    DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.setFilesystem(Value());
    auto failed = QVDiskInfoSerializeFromFolder(folder);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->code, 1001);
    EXPECT_EQ(QVDictGet(*QVDiskInfoRead(image, nullptr), "filesystem").toString(), "HFS+J") << "old file kept";
    EXPECT_EQ(fs::directory_iterator(image)->path().filename(), "diskinfo") << "no temporary file left";
    EXPECT_TRUE(QVDiskInfoSerializeFromFolder(folderWithImage("/home/ann/F", dir + "/missing.sparsebundle", Value(GiB))));
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
    auto write = [&](const Value& v) { ASSERT_TRUE(QVWriteFileAtomically(dir + "/diskinfo", *QVPropertyListToXML(v), nullptr)); };
    write(Value::newDict({{"version", Value(2)}, {"encryption", Value("AES-256")}}));
    EXPECT_FALSE(QVDiskInfoRead(dir, &error));
    EXPECT_NE(error.description.find("newer version"), std::string::npos) << error.description;
    write(Value::newDict({{"encryption", Value("AES-256")}}));
    EXPECT_FALSE(QVDiskInfoRead(dir, &error)) << "no version";
    write(Value::newArray({Value(1)}));
    EXPECT_FALSE(QVDiskInfoRead(dir, &error)) << "not a dictionary";
    fs::remove_all(dir);
}

TEST(DiskMasterRules, ToolsAreFoundByAbsolutePath) {
    {
        test::ScopedVariable env("QV_TOOL_DIR", "relative/dir");
        EXPECT_EQ(QVToolPath("qv-index"), fs::current_path().string() + "/relative/dir/qv-index");
    }
    test::ScopedVariable env("QV_TOOL_DIR", std::nullopt);
    // Beside the running program first, then the system's directories.
    const fs::path self = fs::read_symlink("/proc/self/exe");
    EXPECT_EQ(QVToolPath(self.filename().string()), self.string());
    EXPECT_EQ(QVToolPath("no-such-tool-here"), "/usr/bin/no-such-tool-here");
}
