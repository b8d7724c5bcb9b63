#pragma once
// What the DiskMaster tests share: the image sandbox, a Folder Set whose image
// passwords are wrapped under the set's password as the application keeps them,
// and blocking calls run off the main thread while it turns the loop they post to.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <string>

#include "automation/AutomationTestSupport.h"
#include "disk/FolderState.h"
#include "disk/StorageLocations.h"
#include "image/ImageTestSupport.h"
#include "support/QtApp.h"
#include "vault/DBSubdb.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace qv::test {

template <class Work>
auto offMainThread(Work work) {
    auto future = std::async(std::launch::async, std::move(work));
    processEventsUntil([&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
                       15 * 60 * 1000);
    return future.get();
}

class DiskMasterTest : public ::testing::Test {
protected:
    static constexpr const char* kSetPassword = "the set's own password";
    static constexpr const char* kImagePassword = "an image password of 30 chars!";

    void SetUp() override {
        qtApp();
        std::filesystem::create_directories(storageDir());
        storage = QVStorageMake("Default", URLValue{storageDir()});
        subdb = DBSubdb::subdbWithFolders({}, kSetPassword);
    }
    void TearDown() override {
        processEventsFor(20);
        sandbox.cleanup();
    }

    std::string storageDir() const { return sandbox.path("storage"); }
    std::string tempDir() const { return storageDir() + "/Temp"; }

    // A folder of the set at `path` (made when missing), its image to be at
    // `<storage>/<uuid>.sparsebundle`. Its face holds the set and says `locked`.
    QVRecordRef makeFace(const std::string& path, const std::string& imagePassword = kImagePassword) {
        std::filesystem::create_directories(path);
        QVRecordRef folder = QVFolderCreate(storage, URLValue{path});
        FolderRef f{folder};
        QVRecordRef diskinfo = QVRecordForProtocol(DiskInfo);
        DiskInfoRef{diskinfo}.setUrl(Value::url(storageDir() + "/" + f.uuid().toString() + ".sparsebundle"));
        f.setDiskinfo(Value(diskinfo));
        auto wrapped = QVCrypto::encryptWithString(Bytes(imagePassword.begin(), imagePassword.end()), kSetPassword);
        if (wrapped) f.setPassword(Value(*wrapped));
        EXPECT_TRUE(wrapped && subdb->addFolder(folder));
        QVRecordRef face = QVFolderFaceCreate(folder);
        FolderFaceRef{face}.setSubdb(Value(subdb));
        FolderFaceRef{face}.setLocked(Value(true));
        return face;
    }
    static QVRecordRef folderOf(const QVRecordRef& face) { return FolderFaceRef{face}.folder().as<QVRecord>(); }
    static std::string imageOf(const QVRecordRef& face) {
        return DiskInfoRef{FolderRef{folderOf(face)}.diskinfo().as<QVRecord>()}.url().toURLPath();
    }
    static bool locked(const QVRecordRef& face) { return FolderFaceRef{face}.locked().toBool(); }

    void createImageFor(const QVRecordRef& face, const std::string& volname = "Vol") {
        CommandResult r = sandbox.create(imageOf(face), kImagePassword, 64, "HFS+J", "AES-256", volname);
        ASSERT_EQ(r.exitCode, 0) << r.describe();
    }
    // The ext4 label of an image, read while nothing has it mounted. A forced
    // detach is lazy: the device process of the last attachment may still be
    // ending, and a new attachment would be refused until it has.
    std::string labelOf(const std::string& image) {
        waitUntilNoProcessUses(image);
        std::string dev;
        CommandResult r = sandbox.attachNoMount(image, kImagePassword, &dev);
        if (r.exitCode != 0 || dev.empty()) return "<not attached: " + r.describe() + ">";
        std::string label = runCommand({"/usr/sbin/e2label", dev}).out;
        sandbox.detach(dev);
        return label.substr(0, label.find('\n'));
    }

    ImageSandbox sandbox;  // declared first: torn down last, after the environment is back
    ScopedVariable toolDir{"QV_TOOL_DIR", std::string(QV_BINARY_DIR) + "/src"};
    ScopedVariable runtimeDir{"XDG_RUNTIME_DIR", sandbox.runtimeDir()};
    ScopedVariable layer{"QV_IMAGE_LAYER", "fuse2fs"};
    QVRecordRef storage;
    DBSubdbRef subdb;
};

} // namespace qv::test
