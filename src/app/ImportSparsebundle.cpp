#include "app/ImportSparsebundle.h"

#include <filesystem>

#include "app/FolderIntake.h"
#include "app/FolderList.h"
#include "disk/DiskMasterSupport.h"
#include "disk/FolderState.h"
#include "disk/ProcessRunner.h"
#include "disk/StorageLocations.h"
#include "disk/URLHelpers.h"
#include "toolkit/Log.h"
#include "vault/DBSubdb.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

void defaultCallback(const QVRecordRef& face) {
    FolderList& list = FolderList::singleton();
    list.importSparseBundle(face);
    list.checkEmptyFolderList();
}

} // namespace

ImportSparsebundle& ImportSparsebundle::singleton() {
    static ImportSparsebundle* screen = new ImportSparsebundle(); // lives as long as the process
    return *screen;
}

void ImportSparsebundle::reset() {
    QVWipe(password1_);
    QVWipe(password2_);
    password1_.clear();
    password2_.clear();
    mountPoint_.clear();
    infoText_.clear();
    okEnabled_ = infoVisible_ = infoIsWarning_ = false;
}

ImportSparsebundle& ImportSparsebundle::folderWithURL(const std::string& bundle) {
    ImportSparsebundle& screen = singleton();
    screen.reset();
    screen.callback_ = defaultCallback;
    QVRecordRef folder = QVFolderCreate(QVStorageDefault(), URLValue{std::string()});
    QVRecordRef diskinfo = QVDiskInfoForFolder(folder);
    DiskInfoRef{diskinfo}.setUrl(Value(URLValue{bundle}));
    FolderRef{folder}.setDiskinfo(Value(diskinfo));
    screen.folderFace_ = QVFolderFaceCreate(folder);
    return screen;
}

void ImportSparsebundle::setPassword1(const std::string& password) {
    QVWipe(password1_);
    password1_ = password;
    validateOptions();
}

void ImportSparsebundle::setPassword2(const std::string& password) {
    QVWipe(password2_);
    password2_ = password;
    validateOptions();
}

void ImportSparsebundle::validateOptions() {
    okEnabled_ = false;
    infoVisible_ = !password2_.empty();
    if (password1_.empty()) return;
    if (password1_ == password2_) {
        infoText_ = "Passwords match";
        infoIsWarning_ = false;
        okEnabled_ = !mountPoint_.empty();
    } else {
        infoText_ = "Passwords do not match!";
        infoIsWarning_ = true;
    }
}

bool ImportSparsebundle::validateMountingPoint(const std::string& path, QVError* error) {
    return isGoodFolderAtURL(path, error);
}

bool ImportSparsebundle::chooseMountPoint(const std::string& path, QVError* error) {
    std::error_code ec;
    QVError refusal;
    if (!std::filesystem::is_directory(path, ec) || isSparseBundle(path)) {
        QVSetAppError(&refusal, QVErrorRefused, "'" + path + "' is not a folder.");
    } else if (!std::filesystem::is_empty(path, ec) || ec) {
        QVSetAppError(&refusal, QVErrorRefused,
                      "'" + path +
                          "' is not empty. The image would be mounted over what it holds: choose an empty "
                          "folder.");
    } else if (!validateMountingPoint(path, &refusal)) {
        // A "no" to a question refuses without a reason.
        if (refusal.empty()) QVSetAppError(&refusal, QVErrorCancelled, "'" + path + "' was not chosen.");
    } else {
        mountPoint_ = path;
        validateOptions();
        return true;
    }
    QV_LOG_WARN(refusal.description);
    if (error) *error = refusal;
    return false;
}

void ImportSparsebundle::retrieveImageInfo(const std::function<void(const QVError*)>& callback) {
    const std::string bundle =
        DiskInfoRef{FolderRef{FolderFaceRef{folderFace_}.folder().as<QVRecord>()}.diskinfo().as<QVRecord>()}
            .url()
            .toURLPath();
    QVError error;
    diskmaster::runImageTool({"imageinfo", bundle, "-plist", "-stdinpass"}, QVInputBytes(password1_), &error);
    if (callback) callback(error.empty() ? nullptr : &error);
}

bool ImportSparsebundle::ok() {
    bool accepted = false;
    retrieveImageInfo([&](const QVError* error) {
        if (error) {
            infoText_ = "Invalid Password";
            infoIsWarning_ = true;
            infoVisible_ = true;
            return;
        }
        FolderList& list = FolderList::singleton();
        std::optional<Bytes> wrapped;
        if (const auto& subdb = list.subdb())
            subdb->withPassword(
                [&](std::string& setPassword) { wrapped = QVCrypto::encryptString(password1_, setPassword); });
        FolderRef folder{FolderFaceRef{folderFace_}.folder().as<QVRecord>()};
        DiskInfoRef diskinfo{folder.diskinfo().as<QVRecord>()};
        diskinfo.setFilesystem(Value("HFS+"));
        diskinfo.setEncryption(Value("AES"));
        const Bytes password = wrapped.value_or(Bytes());
        folder.setEncrypted(Value(!password.empty()));
        folder.setPassword(Value(password));
        folder.setMountpoint(Value(URLValue{mountPoint_}));
        FolderFaceRef{folderFace_}.setLocked(Value(true));
        accepted = true;
    });
    if (!accepted) return false;
    const QVRecordRef face = folderFace_;
    cancel();
    if (callback_) callback_(face);
    return true;
}

void ImportSparsebundle::cancel() { reset(); }

} // namespace qv
