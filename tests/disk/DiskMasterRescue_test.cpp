// Handing a folder's password and image over to the user, with no image
// mounted: the password file and the two alerts, the rescue of an image to a
// chosen place, and the force removal of a folder from the list.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "app/AutoUnlockCount.h"
#include "automation/AutomationTestSupport.h"
#include "vault/UserDefaults.h"
#include "disk/DiskMaster.h"
#include "vault/Locations.h"
#include "disk/RescueFrontEnd.h"
#include "disk/TreeCompare.h"
#include "support/QtApp.h"
#include "support/TempHome.h"
#include "toolkit/LogCapture.h"
#include "app/FolderList.h"
#include "notify/QVNotificationCenter.h"
#include "vault/DBSubdb.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace fs = std::filesystem;
using namespace qv;
using test::readWhole;

namespace {

constexpr const char* kSetPassword = "the set's password";
constexpr const char* kImagePassword = "Zq7!image-password-of-30-chars";
constexpr const char* kFileName = "Secrets - PASSWORD (DELETE ME!).txt";
constexpr const char* kCopiedText =
    "Password Copied!\n\nThe password to 'Secrets' has been copied to the clipboard. Please paste it into a "
    "document IMMEDIATELY in case the disk image is recoverable.";
constexpr const char* kAddition =
    "\n\nAdditionally, the password was written to a file on the same folder just in case:\n\n";

class DiskMasterRescue : public ::testing::Test {
protected:
    void SetUp() override {
        test::qtApp();
        ASSERT_TRUE(registerQuillvaneDefaults());
        QVSetSelectInFileViewer([](const std::string&) {});
        QVSetClipboardWriter([this](const std::string& text) {
            clipboard.push_back(text);
            return true;
        });
        storage = QVStorageCreate("Default", URLValue{home.root() + "/storage"});
        subdb = DBSubdb::subdbWithFolders({}, kSetPassword);
    }
    void TearDown() override {
        test::processEventsFor(30);
        FolderList::singleton().returnSubDB();
        QVSetClipboardWriter(nullptr);
        QVSetSavePanel(nullptr);
        QVSetSelectInFileViewer(nullptr);
        QVSetSecretAlert(nullptr);
        centre().setYesNoHandler(nullptr);
        EXPECT_FALSE(log.has(kImagePassword)) << "the password never reaches the log";
    }
    static QVNotificationCenter& centre() { return QVNotificationCenter::defaultCenter(); }
    // What was shown since the last look.
    std::vector<std::string> shown() {
        test::processEventsFor(30);
        const auto all = notifications.texts();
        return std::vector<std::string>(all.begin() + long(std::exchange(seen, all.size())), all.end());
    }

    // A folder of the set named `name` (none: no mountpoint), its image password
    // wrapped under `wrapWith`, and, when `withImage`, an image holding one band.
    QVRecordRef folder(const std::optional<std::string>& name, bool withImage,
                       const std::string& wrapWith = kSetPassword) {
        const std::string path = home.root() + "/" + name.value_or("nameless");
        fs::create_directories(path);
        QVRecordRef f = QVFolderCreate(storage, URLValue{path});
        FolderRef ref{f};
        if (!name) ref.setMountpoint(Value());
        QVRecordRef diskinfo = QVRecordForProtocol(DiskInfo);
        const std::string image = home.root() + "/storage/" + ref.uuid().toString() + ".sparsebundle";
        DiskInfoRef{diskinfo}.setUrl(Value::url(image));
        ref.setDiskinfo(Value(diskinfo));
        const std::string plain = kImagePassword;
        auto wrapped = QVCrypto::encryptWithString(Bytes(plain.begin(), plain.end()), wrapWith);
        EXPECT_TRUE(wrapped);
        ref.setPassword(Value(*wrapped));
        ref.setEncrypted(Value(true));
        EXPECT_TRUE(subdb->addFolder(f));
        if (withImage) {
            fs::create_directories(image + "/bands");
            std::ofstream(image + "/bands/0") << "encrypted band";
        }
        return f;
    }
    static std::string imageOf(const QVRecordRef& f) {
        return DiskInfoRef{FolderRef{f}.diskinfo().as<QVRecord>()}.url().toURLPath();
    }
    QVRecordRef loadedFace(const QVRecordRef& f) {
        FolderList::singleton().loadSubdb(subdb);
        for (const auto& face : FolderList::singleton().faces())
            if (FolderFaceRef{face}.folder().as<QVRecord>() == f) return face;
        ADD_FAILURE() << "the folder has no face";
        return nullptr;
    }

    test::TempHome home;
    test::LogCapture log;
    test::RecordedNotifications notifications;
    size_t seen = 0;
    std::vector<std::string> clipboard;
    QVRecordRef storage;
    DBSubdbRef subdb;
};

TEST_F(DiskMasterRescue, PasswordGoesToTheClipboardAndAPrivateFileInTheLocation) {
    const QVRecordRef f = folder("Secrets", true);
    const std::string location = home.root() + "/chosen";
    fs::create_directories(location);

    ASSERT_TRUE(DiskMaster::rescuePassWord(f, location));
    const std::string file = location + "/" + kFileName;
    EXPECT_EQ(readWhole(file), kImagePassword) << "UTF-8, no terminator";
    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(clipboard, (std::vector<std::string>{"", kImagePassword})) << "cleared first, then the password";
    EXPECT_EQ(shown(), (std::vector<std::string>{std::string(kCopiedText) + kAddition + kFileName}));

    // An unwritable location still hands the password over, without the note about a file.
    ASSERT_TRUE(DiskMaster::rescuePassWord(f, home.root() + "/no/such/dir"));
    EXPECT_EQ(shown(), (std::vector<std::string>{kCopiedText}));

    // A password that cannot be decrypted writes nothing and points at the image.
    clipboard.clear();
    const QVRecordRef other = folder("Other", true, "another set's password");
    EXPECT_FALSE(DiskMaster::rescuePassWord(other, home.root()));
    EXPECT_FALSE(fs::exists(home.root() + "/Other - PASSWORD (DELETE ME!).txt"));
    EXPECT_TRUE(clipboard.empty()) << "the clipboard keeps what it had";
    EXPECT_EQ(shown(), (std::vector<std::string>{"Couldn't decrypt folder password!\n\nWe strongly recommend "
                                                 "recovering the disk image from backups. It was stored here:\n\n" +
                                                 imageOf(other)}));
}

TEST_F(DiskMasterRescue, WithoutAClipboardOnlyTheFrontEndsOwnPanelShowsThePassword) {
    QVSetClipboardWriter(nullptr);
    const QVRecordRef f = folder(std::nullopt, true);  // no mountpoint: named "(null)"
    std::vector<std::string> panels;
    QVSetSecretAlert([&](const std::string& title, const std::string& text) { panels.push_back(title + "|" + text); });

    ASSERT_TRUE(DiskMaster::rescuePassWord(f, std::nullopt));
    const std::string fileName = "(null) - PASSWORD (DELETE ME!).txt";
    ASSERT_EQ(desktopURL().rfind(home.root(), 0), 0u) << "the test's own Desktop";
    EXPECT_EQ(readWhole(desktopURL() + "/" + fileName), kImagePassword);
    EXPECT_EQ(panels, (std::vector<std::string>{std::string("Failed to copy password!|DO NOT CLICK 'OK' YET!\n\n"
                                                            "Write this down IMMEDIATLY:\n\n") +
                                                kImagePassword + kAddition + fileName}));
    EXPECT_TRUE(shown().empty());

    // With no such panel the notification, which is logged, leaves the password out.
    QVSetSecretAlert(nullptr);
    ASSERT_TRUE(DiskMaster::rescuePassWord(f, std::nullopt)) << "the file holds it";
    EXPECT_EQ(shown(), (std::vector<std::string>{"Failed to copy password!\n\nThe password to '(null)' could not be "
                                                 "shown here." + std::string(kAddition) + fileName}));
    EXPECT_FALSE(DiskMaster::rescuePassWord(f, home.root() + "/no/such/dir")) << "no way reached the user";
}

TEST_F(DiskMasterRescue, RescueMovesTheImageToTheChosenPlaceOnlyOnceOneIsGiven) {
    const QVRecordRef f = folder("Secrets", true);
    const QVRecordRef face = loadedFace(f);
    const std::string image = imageOf(f);
    QVSetSavePanel([&](const std::string& proposed) {
        EXPECT_EQ(proposed, desktopURL() + "/Secrets.sparsebundle");
        return std::optional<std::string>();
    });
    EXPECT_FALSE(DiskMaster::rescueDiskImageForFolderFace(face, true));
    EXPECT_TRUE(shown().empty()) << "a cancel that is allowed says nothing";
    EXPECT_TRUE(fs::exists(image + "/bands/0"));

    // Not allowed to cancel: told to choose, and asked again until a place is given.
    fs::create_directories(home.root() + "/rescued");
    const std::string target = home.root() + "/rescued/Kept.sparsebundle";
    int asked = 0;
    QVSetSavePanel([&](const std::string&) {
        return ++asked < 3 ? std::optional<std::string>() : std::optional<std::string>(target);
    });
    ASSERT_TRUE(DiskMaster::rescueDiskImageForFolderFace(face, false));
    EXPECT_EQ(asked, 3);
    auto texts = shown();
    texts.resize(2);  // then the password's handover
    EXPECT_EQ(texts, std::vector<std::string>(2, "Must choose a directory\n\nPlease choose a location to save the "
                                                 "encrypted disk image to. You can attempt to manually restore from it."));
    EXPECT_FALSE(fs::exists(image));
    EXPECT_EQ(readWhole(target + "/bands/0"), "encrypted band");
    EXPECT_EQ(readWhole(home.root() + "/rescued/" + kFileName), kImagePassword);
    EXPECT_FALSE(FolderRef{f}.encrypted().toBool());
    EXPECT_TRUE(FolderList::singleton().faces().empty());
    EXPECT_TRUE(subdb->folders().empty());
}

TEST_F(DiskMasterRescue, AFailedMoveKeepsTheImageAndTheFolder) {
    const QVRecordRef f = folder("Secrets", true);
    const QVRecordRef face = loadedFace(f);
    const std::string taken = home.root() + "/Taken.sparsebundle";
    fs::create_directories(taken);
    std::ofstream(taken + "/mine") << "someone else's";
    QVSetSavePanel([&](const std::string&) { return std::optional<std::string>(taken); });

    EXPECT_FALSE(DiskMaster::rescueDiskImageForFolderFace(face, true));
    EXPECT_TRUE(fs::exists(imageOf(f) + "/bands/0"));
    EXPECT_EQ(readWhole(taken + "/mine"), "someone else's") << "never over an existing item";
    EXPECT_TRUE(FolderRef{f}.encrypted().toBool());
    EXPECT_EQ(FolderList::singleton().faces().size(), 1u);
    EXPECT_TRUE(clipboard.empty()) << "no password is handed over for an image that didn't move";
    const auto texts = shown();
    ASSERT_EQ(texts.size(), 1u);
    EXPECT_EQ(texts[0].rfind("Couldn't move disk image\n\n", 0), 0u) << texts[0];
}

TEST_F(DiskMasterRescue, ForceRemovalAsksAboutAMissingImageAndAlwaysUncountsTheAutounlock) {
    const QVRecordRef kept = folder("Kept", false);
    const QVRecordRef dropped = folder("Dropped", false);
    const QVRecordRef withImage = folder("Secrets", true);
    for (const auto& f : {kept, dropped, withImage}) FolderRef{f}.setAutounlock(Value(true));
    AutoUnlockCount::increment(3);
    std::vector<std::pair<std::string, bool>> questions;
    bool answer = false;
    centre().setYesNoHandler([&](const std::string& message, bool defaultButton) {
        questions.emplace_back(message, defaultButton);
        return answer;
    });
    FolderList& list = FolderList::singleton();

    list.forceRemoveEntry(loadedFace(kept));  // "No"
    ASSERT_EQ(questions.size(), 1u);
    EXPECT_EQ(questions[0], std::make_pair(std::string("Missing Disk Image\n\nThe disk image is missing. Are you sure "
                                                       "you want to force remove this folder?"), false));
    EXPECT_EQ(list.faces().size(), 3u);
    EXPECT_TRUE(FolderRef{kept}.encrypted().toBool());
    EXPECT_EQ(AutoUnlockCount::count(), 2) << "uncounted even though it stays";

    answer = true;
    list.forceRemoveEntry(loadedFace(dropped));
    EXPECT_EQ(list.faces().size(), 2u);
    EXPECT_FALSE(FolderRef{dropped}.encrypted().toBool());
    EXPECT_EQ(readWhole(desktopURL() + "/Dropped - PASSWORD (DELETE ME!).txt"), kImagePassword);
    EXPECT_EQ(AutoUnlockCount::count(), 1);

    // With its image at hand the rescue is offered instead; a cancel keeps the folder.
    QVSetSavePanel([&](const std::string&) { return std::optional<std::string>(); });
    list.forceRemoveEntry(loadedFace(withImage));
    test::processEventsFor(30);
    EXPECT_EQ(AutoUnlockCount::count(), 0);
    EXPECT_EQ(list.faces().size(), 2u);
    EXPECT_TRUE(fs::exists(imageOf(withImage) + "/bands/0"));
}

} // namespace
