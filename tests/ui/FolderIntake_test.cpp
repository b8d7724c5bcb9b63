// The intake checks on real paths in a private home: what each refusal says
// and in which order the tests stop, the question about ~/.local, and the
// places that must never go into an image (our data, our images, the program,
// other protected folders).
#include "ui/logic/FolderIntake.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "app/UserDefaults.h"
#include "disk/FileSystemVolumes.h"
#include "disk/Locations.h"
#include "support/TempHome.h"
#include "toolkit/Log.h"
#include "ui/logic/FolderList.h"
#include "ui/logic/QVNotificationCenter.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOurData =
    "This folder contains Quillvane's data. Encrypting it would prevent Quillvane from working.";
constexpr const char* kNested =
    "Quillvane does not support encrypting folders within folders, as it does not provide a significant improvement "
    "on top of the existing encryption, and can lead to problems if the folders are not properly locked.";

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
        const std::string path = home.root() + "/" + relative;
        fs::create_directories(path);
        return path;
    }
    std::string file(const std::string& relative) {
        const std::string path = home.root() + "/" + relative;
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path) << "x";
        return path;
    }
    // A set on show holding folders at these paths.
    void showSetWith(const std::vector<std::string>& paths) {
        std::vector<QVRecordRef> folders;
        for (const auto& path : paths)
            folders.push_back(
                QVFolderCreate(QVStorageCreate("Default", URLValue{home.root() + "/store"}), URLValue{path}));
        FolderList::singleton().loadSubdb(DBSubdb::subdbWithFolders(folders, "pw"));
    }
    // The refusal of a folder: code and text ("" when it passes).
    std::pair<long, std::string> folderVerdict(const std::string& path) {
        QVError error;
        if (isGoodFolderAtURL(path, &error)) return {0, ""};
        EXPECT_TRUE(error.empty() || error.domain == QVAppErrorDomain()) << error.domain;
        return {error.code, error.description};
    }
    std::pair<long, std::string> destinationVerdict(const std::string& path, const std::string& mountpoint) {
        QVError error;
        if (isGoodImageDestination(path, mountpoint, &error)) return {0, ""};
        EXPECT_EQ(error.domain, QVAppErrorDomain());
        return {error.code, error.description};
    }
    using Verdict = std::pair<long, std::string>;

    test::TempHome home;
    std::vector<std::string> questions;
    bool answer = false;
};

TEST_F(FolderIntakeTest, WhatIsNoFolderIsRefusedFirst) {
    const std::string missing = home.root() + "/missing";
    EXPECT_EQ(folderVerdict(missing), Verdict(ENOENT, "Failed to read attributes for folder:\n\n" + missing +
                                                          "\n\nGot error: " + std::strerror(ENOENT)));
    EXPECT_EQ(folderVerdict(file("plain.txt")), Verdict(QVErrorRefused, "Please drag a folder onto Quillvane."));
    fs::create_directory_symlink(dir("real"), home.root() + "/link");
    EXPECT_EQ(folderVerdict(home.root() + "/link"), Verdict(QVErrorRefused, "Please drag a folder onto Quillvane."))
        << "a link would be trashed in place of the folder";
    EXPECT_FALSE(isGoodFolderAtURL(file("other.txt"), nullptr)) << "the same answer without an error to fill";

    EXPECT_EQ(destinationVerdict(missing, "/elsewhere").first, ENOENT);
    EXPECT_EQ(destinationVerdict(file("plain.txt"), "/elsewhere"), Verdict(QVErrorRefused, "Please, select a folder."));
}

TEST_F(FolderIntakeTest, AnOrdinaryFolderPassesAndAFolderOfTheSetIsRefusedFirst) {
    const std::string good = dir("Documents/Taxes 2023");
    QVError untouched{"keep", 7, "me"};
    EXPECT_TRUE(isGoodFolderAtURL(good + "/", &untouched));
    EXPECT_EQ(untouched.code, 7) << "a pass fills no error";
    EXPECT_TRUE(questions.empty());

    EXPECT_EQ(folderVerdict(dir("Tools/Editor.app")),
              Verdict(QVErrorRefused, "'Editor.app' is an application, please drag a folder onto Quillvane."));

    // A folder of the set is refused as such before any other test: even one
    // that looks like an application.
    const std::string known = dir("Known.app");
    showSetWith({good, known});
    EXPECT_EQ(folderVerdict(good), Verdict(QVIntakeAlreadyEncrypted, "Taxes 2023 is already encrypted."));
    EXPECT_EQ(folderVerdict(known), Verdict(QVIntakeAlreadyEncrypted, "Known.app is already encrypted."));

}

TEST_F(FolderIntakeTest, OurDataTheLibraryAndTheHomeDirectory) {
    const std::string data = ourAppSupURL();
    EXPECT_EQ(folderVerdict(data), Verdict(QVErrorRefused, kOurData));
    EXPECT_EQ(folderVerdict(dir(".local/share/com.marrowfen.Quillvane3/Backups")), Verdict(QVErrorRefused, kOurData));
    EXPECT_EQ(folderVerdict(libraryURL()),
              Verdict(QVErrorRefused,
                      "Encrypting the Library folder can lead to problems. You can use FileVault to do that safely."));
    EXPECT_EQ(folderVerdict(appSupURL()),
              Verdict(QVErrorRefused, "Encrypting the Application Support folder can lead to problems. You can use "
                                      "FileVault to do that safely."));
    EXPECT_TRUE(questions.empty()) << "the Library folder itself is refused without a question";
    EXPECT_EQ(folderVerdict(home.root()),
              Verdict(QVErrorRefused,
                      "Quillvane cannot safely encrypt your entire home directory, please use FileVault to do that."));
    // A folder that holds the chosen image location.
    const std::string images = dir("Media/Images");
    QVUserDefaults::standardUserDefaults().setObject("QVDiskImageDestinationPath", Value(images));
    EXPECT_EQ(folderVerdict(home.root() + "/Media"), Verdict(QVErrorRefused, kOurData));
    EXPECT_EQ(folderVerdict(images), Verdict(QVErrorRefused, kOurData));
    // Reached through a link, our data is still ours.
    fs::create_directory_symlink(data, home.root() + "/shortcut");
    EXPECT_EQ(folderVerdict(dir("shortcut/Backups2")), Verdict(QVErrorRefused, kOurData));
}

TEST_F(FolderIntakeTest, AFolderInsideTheLibraryIsEncryptedOnlyWhenTheUserSaysYes) {
    const std::string appData = dir(".local/state/editor");
    std::vector<std::string> lines;
    QVLogSink previous = QVLogSetSink([&](const std::string& line) { lines.push_back(line); });

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
    EXPECT_EQ(questions.size(), 2u);
    QVLogSetSink(previous);
    EXPECT_NE(std::find_if(lines.begin(), lines.end(),
                           [](const std::string& line) {
                               return line.rfind("WARN (isGoodFolderAtURL:", 0) == 0 &&
                                      line.find("Only encrypt folders in the Library") != std::string::npos;
                           }),
              lines.end());

    // A folder of the set inside the Library is refused before anything is asked.
    showSetWith({appData});
    EXPECT_EQ(folderVerdict(appData).first, QVIntakeAlreadyEncrypted);
    EXPECT_EQ(questions.size(), 2u);
}

TEST_F(FolderIntakeTest, TheProgramVolumesAndNestedFolders) {
    const std::string bundle = QVApplicationBundlePath();
    ASSERT_FALSE(bundle.empty());
    const Verdict program(QVErrorRefused,
                          "This folder contains Quillvane. Encrypting it would prevent Quillvane from working.");
    EXPECT_EQ(folderVerdict(bundle), program);
    EXPECT_EQ(folderVerdict(fs::path(bundle).parent_path().string()), program);
    EXPECT_EQ(destinationVerdict(bundle, "/elsewhere"), Verdict(QVErrorRefused, "This folder contains Quillvane."));

    if (isVolumeAtURL("/dev/shm", nullptr) && ::access("/dev/shm", R_OK | W_OK | X_OK) == 0) {
        EXPECT_EQ(folderVerdict("/dev/shm"),
                  Verdict(QVIntakeIsVolume, "At this time Quillvane does not encrypt entire volumes, please use Disk "
                                            "Utliity or FileVault for that."));
    }

    const std::string outer = dir("Private");
    showSetWith({outer});
    EXPECT_EQ(folderVerdict(dir("Private/Inner")), Verdict(QVErrorRefused, kNested));
    EXPECT_EQ(folderVerdict(home.root() + "/"), folderVerdict(home.root())) << "the home text comes first";
    const std::string holder = dir("Work");
    fs::create_directories(holder + "/Projects");
    showSetWith({holder + "/Projects"});
    EXPECT_EQ(folderVerdict(holder), Verdict(QVErrorRefused, kNested)) << "it holds a protected folder";
}

TEST_F(FolderIntakeTest, ASparseBundleIsTakenWithoutFurtherTests) {
    // Inside our data directory, where no folder would pass.
    const std::string bundle = dir(".local/share/com.marrowfen.Quillvane3/Data/A.sparsebundle");
    std::ofstream(bundle + "/Info.plist") << "<plist/>";
    EXPECT_EQ(folderVerdict(bundle), Verdict(0, ""));
    EXPECT_EQ(destinationVerdict(bundle, bundle), Verdict(0, ""));
    // Without its header it is just a folder in our data.
    const std::string fake = dir(".local/share/com.marrowfen.Quillvane3/Data/B.sparsebundle");
    EXPECT_EQ(folderVerdict(fake), Verdict(QVErrorRefused, kOurData));
}

TEST_F(FolderIntakeTest, ImageDestinations) {
    const std::string store = dir("Images");
    const std::string folder = dir("Secret");
    EXPECT_EQ(destinationVerdict(store, folder), Verdict(0, ""));

    const Verdict inMountpoint(QVErrorRefused, "Disk image cannot be stored in the mounting point");
    EXPECT_EQ(destinationVerdict(dir("Secret/images"), folder), inMountpoint);
    EXPECT_EQ(destinationVerdict(folder, folder), inMountpoint);
    EXPECT_EQ(destinationVerdict(dir("Tools/Viewer.app"), folder),
              Verdict(QVErrorRefused, "'Viewer.app' is an application, please drag a folder onto Quillvane."));

    const std::string other = dir("Other Secret");
    showSetWith({other});
    EXPECT_EQ(destinationVerdict(other, folder),
              Verdict(QVIntakeAlreadyEncrypted, "Other Secret is already encrypted."));
    EXPECT_EQ(destinationVerdict(dir("Other Secret/inside"), folder), inMountpoint)
        << "another protected folder's mount point is no place for images either";
}

} // namespace
} // namespace qv
