// The intake checks on real paths in a private home: what each refusal says
// and in which order the tests stop, the question about ~/.local, and the
// places that must never go into an image (our data, our images, the program,
// other protected folders).
#include "app/FolderIntake.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "vault/UserDefaults.h"
#include "disk/FileSystemVolumes.h"
#include "vault/Locations.h"
#include "support/TempHome.h"
#include "app/FolderList.h"
#include "notify/QVNotificationCenter.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv {
namespace {

namespace fs = std::filesystem;
using Verdict = std::pair<long, std::string>;

constexpr const char* kOurData =
    "This folder contains Quillvane's data. Encrypting it would prevent Quillvane from working.";
constexpr const char* kNested =
    "Quillvane does not support encrypting folders within folders, as it does not provide a significant improvement "
    "on top of the existing encryption, and can lead to problems if the folders are not properly locked.";
const Verdict kNoFolder(QVErrorRefused, "Please drag a folder onto Quillvane.");

class FolderIntakeTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(registerQuillvaneDefaults());
        QVNotificationCenter::defaultCenter().setYesNoHandler([this](const std::string& message, bool defaultButton) {
            questions.push_back(message);
            EXPECT_FALSE(defaultButton) << "the default answer is No";
            return answer;
        });
    }
    void TearDown() override {
        QVNotificationCenter::defaultCenter().setYesNoHandler(nullptr);
        FolderList::singleton().returnSubDB();
    }

    std::string dir(const std::string& relative) {
        fs::create_directories(home.root() + "/" + relative);
        return home.root() + "/" + relative;
    }
    // A set on show holding folders at these paths.
    void showSetWith(const std::vector<std::string>& paths) {
        std::vector<QVRecordRef> folders;
        for (const auto& path : paths)
            folders.push_back(
                QVFolderCreate(QVStorageCreate("Default", URLValue{home.root() + "/store"}), URLValue{path}));
        FolderList::singleton().loadSubdb(DBSubdb::subdbWithFolders(folders, "pw"));
    }
    // The refusal of a folder or an image destination: code and text ("" when it passes).
    Verdict folderVerdict(const std::string& path) {
        QVError error;
        return isGoodFolderAtURL(path, &error) ? Verdict(0, "") : Verdict(error.code, error.description);
    }
    Verdict destinationVerdict(const std::string& path, const std::string& mountpoint) {
        QVError error;
        return isGoodImageDestination(path, mountpoint, &error) ? Verdict(0, "") : Verdict(error.code, error.description);
    }

    test::TempHome home;
    std::vector<std::string> questions;
    bool answer = false;
};

TEST_F(FolderIntakeTest, WhatIsNoFolderIsRefusedAndAFolderOfTheSetFirst) {
    const std::string missing = home.root() + "/missing";
    EXPECT_EQ(folderVerdict(missing), Verdict(ENOENT, "Failed to read attributes for folder:\n\n" + missing +
                                                          "\n\nGot error: " + std::strerror(ENOENT)));
    std::ofstream(home.root() + "/plain.txt") << "x";
    EXPECT_EQ(folderVerdict(home.root() + "/plain.txt"), kNoFolder);
    fs::create_directory_symlink(dir("real"), home.root() + "/link");
    EXPECT_EQ(folderVerdict(home.root() + "/link"), kNoFolder) << "a link would be trashed in place of the folder";
    EXPECT_EQ(destinationVerdict(home.root() + "/plain.txt", "/elsewhere"),
              Verdict(QVErrorRefused, "Please, select a folder."));

    const std::string good = dir("Documents/Taxes 2023");
    EXPECT_EQ(folderVerdict(good + "/"), Verdict(0, ""));
    EXPECT_EQ(folderVerdict(dir("Tools/Editor.app")),
              Verdict(QVErrorRefused, "'Editor.app' is an application, please drag a folder onto Quillvane."));
    // A folder of the set is refused as such before any other test, even one that looks like an application.
    showSetWith({good, dir("Known.app")});
    EXPECT_EQ(folderVerdict(good), Verdict(QVIntakeAlreadyEncrypted, "Taxes 2023 is already encrypted."));
    EXPECT_EQ(folderVerdict(home.root() + "/Known.app").first, QVIntakeAlreadyEncrypted);
}

TEST_F(FolderIntakeTest, OurDataTheProgramTheLibraryAndTheHomeDirectory) {
    const std::string data = ourAppSupURL();
    EXPECT_EQ(folderVerdict(data), Verdict(QVErrorRefused, kOurData));
    EXPECT_EQ(folderVerdict(libraryURL()),
              Verdict(QVErrorRefused,
                      "Encrypting the Library folder can lead to problems. You can use FileVault to do that safely."));
    EXPECT_TRUE(questions.empty()) << "the Library folder itself is refused without a question";
    EXPECT_EQ(folderVerdict(home.root()),
              Verdict(QVErrorRefused,
                      "Quillvane cannot safely encrypt your entire home directory, please use FileVault to do that."));
    // A folder that holds the chosen image location; our data reached through a link.
    const std::string images = dir("Media/Images");
    QVUserDefaults::standardUserDefaults().setObject("QVDiskImageDestinationPath", Value(images));
    EXPECT_EQ(folderVerdict(home.root() + "/Media"), Verdict(QVErrorRefused, kOurData));
    fs::create_directory_symlink(data, home.root() + "/shortcut");
    EXPECT_EQ(folderVerdict(dir("shortcut/Backups2")), Verdict(QVErrorRefused, kOurData));

    const std::string program = fs::path(QVApplicationBundlePath()).parent_path().string();
    EXPECT_EQ(folderVerdict(program),
              Verdict(QVErrorRefused, "This folder contains Quillvane. Encrypting it would prevent Quillvane from working."));
    EXPECT_EQ(destinationVerdict(program, "/elsewhere"), Verdict(QVErrorRefused, "This folder contains Quillvane."));
    if (isVolumeAtURL("/dev/shm", nullptr) && ::access("/dev/shm", R_OK | W_OK | X_OK) == 0) {
        EXPECT_EQ(folderVerdict("/dev/shm").first, QVIntakeIsVolume);
    }

    // An image is taken as it is, even inside our data; without its header it is just a folder there.
    const std::string bundle = dir(".local/share/com.marrowfen.Quillvane3/Data/A.sparsebundle");
    std::ofstream(bundle + "/Info.plist") << "<plist/>";
    EXPECT_EQ(folderVerdict(bundle), Verdict(0, ""));
    EXPECT_EQ(folderVerdict(dir(".local/share/com.marrowfen.Quillvane3/Data/B.sparsebundle")),
              Verdict(QVErrorRefused, kOurData));
}

TEST_F(FolderIntakeTest, AFolderInsideTheLibraryIsEncryptedOnlyWhenTheUserSaysYes) {
    const std::string appData = dir(".local/state/editor");
    QVError error{"stale", 1, "stale"};
    EXPECT_FALSE(isGoodFolderAtURL(appData, &error));
    EXPECT_TRUE(error.empty()) << "a No shows nothing more";
    ASSERT_EQ(questions.size(), 1u);
    EXPECT_EQ(questions[0],
              "Encrypting folder in ~/Library - Are you sure?\n\nOnly encrypt folders in the Library folder if you "
              "know what you're doing. If you're encrypting application data, do not run the application until its "
              "data is unlocked. Are you sure you want to do this?");
    answer = true;
    EXPECT_TRUE(isGoodFolderAtURL(appData, &error));
    // A folder of the set inside the Library is refused before anything is asked.
    showSetWith({appData});
    EXPECT_EQ(folderVerdict(appData).first, QVIntakeAlreadyEncrypted);
    EXPECT_EQ(questions.size(), 2u);
}

TEST_F(FolderIntakeTest, NestedFoldersAndImageDestinations) {
    const std::string outer = dir("Private");
    showSetWith({outer});
    EXPECT_EQ(folderVerdict(dir("Private/Inner")), Verdict(QVErrorRefused, kNested));
    const std::string holder = dir("Work");
    showSetWith({dir("Work/Projects")});
    EXPECT_EQ(folderVerdict(holder), Verdict(QVErrorRefused, kNested)) << "it holds a protected folder";

    const std::string folder = dir("Secret");
    EXPECT_EQ(destinationVerdict(dir("Images"), folder), Verdict(0, ""));
    const Verdict inMountpoint(QVErrorRefused, "Disk image cannot be stored in the mounting point");
    EXPECT_EQ(destinationVerdict(dir("Secret/images"), folder), inMountpoint);
    EXPECT_EQ(destinationVerdict(folder, folder), inMountpoint);
    const std::string other = dir("Other Secret");
    showSetWith({other});
    EXPECT_EQ(destinationVerdict(other, folder), Verdict(QVIntakeAlreadyEncrypted, "Other Secret is already encrypted."));
    EXPECT_EQ(destinationVerdict(dir("Other Secret/inside"), folder), inMountpoint)
        << "another protected folder's mount point is no place for images either";
}

} // namespace
} // namespace qv
