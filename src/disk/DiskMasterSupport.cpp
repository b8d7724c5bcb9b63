#include "disk/DiskMasterSupport.h"

#include <cstring>

#include "disk/ProcessRunner.h"
#include "disk/ToolPaths.h"
#include "toolkit/Log.h"
#include "vault/DBSubdb.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"
#include "toolkit/PathText.h"

namespace qv::diskmaster {

FaceParts partsOf(const QVRecordRef& face) {
    FaceParts parts;
    parts.face = face;
    if (!face) return parts;
    parts.folder = FolderFaceRef{face}.folder().as<QVRecord>();
    if (!parts.folder) return parts;
    FolderRef folder{parts.folder};
    parts.diskinfo = folder.diskinfo().as<QVRecord>();
    parts.storage = folder.storage().as<QVRecord>();
    parts.mountpoint = folder.mountpoint().toURLPath();
    parts.imagePath = DiskInfoRef{parts.diskinfo}.url().toURLPath();
    return parts;
}

ImagePassword::~ImagePassword() {
    if (buffer_.empty()) return;
    // Random bytes first, as an image password must never linger in freed
    // memory; the wipe then makes sure the overwrite isn't optimised away.
    const Bytes noise = QVCrypto::randomDataOfLength(buffer_.size(), 0, 255);
    std::memcpy(buffer_.data(), noise.data(), std::min(noise.size(), buffer_.size()));
    QVWipe(buffer_);
}

bool ImagePassword::fill(QVError* error) {
    FolderRef folder{folder_};
    const Value stored = folder.password();
    if (!folder_ || !stored.isData() || stored.toData().empty()) {
        QV_LOG_FAILED("!folder.password");
        QVSetAppError(error, QVErrorPasswordWrap, "The folder has no disk image password.");
        return false;
    }
    DBSubdbRef subdb = QVRecordGetSubdb(folder_);
    if (!subdb && face_) subdb = FolderFaceRef{face_}.subdb().as<DBSubdb>();
    if (!subdb) {
        QV_LOG_FAILED("!folder.subdb");
        QVSetAppError(error, QVErrorPasswordWrap, "The folder belongs to no open Folder Set.");
        return false;
    }
    std::optional<Bytes> plain;
    subdb->withPassword([&](std::string& setPassword) { plain = QVCrypto::decryptWithString(stored.toData(), setPassword); });
    if (!plain) {
        QV_LOG_ERROR("couldn't decrypt the disk image password of the folder");
        QVSetAppError(error, QVErrorPasswordWrap, "Couldn't decrypt the disk image password.");
        return false;
    }
    QVWipe(buffer_);
    buffer_ = std::move(*plain);
    QVWipe(*plain);  // moved from: empty, but make sure
    return true;
}

std::optional<std::vector<uint8_t>> runImageTool(const std::vector<std::string>& args,
                                                 std::optional<std::span<const uint8_t>> input, QVError* error,
                                                 const QVScryptParams* tokenParameters) {
    if (!input) input = std::span<const uint8_t>();
    if (!tokenParameters) return quickCommand(QVToolPath("qv-image"), args, input, error);
    std::vector<std::string> envArgs{
        std::string(QVImageScryptParamsVariable) + "=" + QVScryptParamsText(*tokenParameters), QVToolPath("qv-image")};
    envArgs.insert(envArgs.end(), args.begin(), args.end());
    return quickCommand("/usr/bin/env", envArgs, input, error);
}

std::string outputText(const std::optional<std::vector<uint8_t>>& output) {
    if (!output) return {};
    return std::string(output->begin(), output->end());
}

std::string trimmedMessage(const std::string& text) {
    std::string t = text;
    while (!t.empty() && (t.back() == '\n' || t.back() == '\r' || t.back() == ' ')) t.pop_back();
    return t;
}

} // namespace qv::diskmaster
