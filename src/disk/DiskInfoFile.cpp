#include "disk/DiskInfoFile.h"

#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "vault/PropertyList.h"
#include "vault/PropertyListGuard.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

std::string fileInImage(const std::string& imagePath) {
    if (!imagePath.empty() && imagePath.back() == '/') return imagePath + QVDiskInfoFileName;
    return imagePath + "/" + QVDiskInfoFileName;
}

} // namespace

DictRef QVDiskInfoDictionaryForFolder(const QVRecordRef& folder, QVError* error) {
    const QVRecordRef diskinfo = folder ? FolderRef{folder}.diskinfo().as<QVRecord>() : nullptr;
    if (!diskinfo) {
        QVSetAppError(error, QVErrorFailed, "The folder has no disk image record.");
        return nullptr;
    }
    auto dict = std::make_shared<Dict>();
    for (const auto& [key, boxed] : *diskinfo->dict()) {
        if (key.isData || key.bytes == "url" || key.bytes == "protocol") continue;
        auto box = boxed.as<QVRecordValue>();
        Value value = box ? box->obj() : boxed;
        if (value.isNull()) {
            QVSetAppError(error, QVErrorFailed, "The disk image record has no value for '" + key.bytes + "'.");
            return nullptr;
        }
        (*dict)[key] = value;
    }
    const Value password = FolderRef{folder}.password();
    (*dict)["password"] = password.isNull() ? Value(std::string()) : password;
    const Value capacity = DiskInfoRef{diskinfo}.capacity();
    if (!capacity.isNumber()) {
        QVSetAppError(error, QVErrorFailed, "The disk image record has no capacity.");
        return nullptr;
    }
    (*dict)["capacity"] = capacity;
    (*dict)[QVDiskInfoVersionKey] = Value(QVDiskInfoFileVersion);
    return dict;
}

std::optional<QVError> QVDiskInfoSerializeFromFolder(const QVRecordRef& folder) {
    const std::string imagePath =
        folder ? DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.url().toURLPath() : std::string();
    QVError error;
    DictRef dict = QVDiskInfoDictionaryForFolder(folder, &error);
    std::optional<Bytes> xml;
    if (dict) {
        xml = QVPropertyListToXML(Value(dict));
        if (!xml) QVSetAppError(&error, QVErrorFailed, "The disk image record holds a value that can't be saved.");
    }
    if (!xml) {
        QV_LOG_ERROR(QVFormat("error serializing diskinfo: %s; error reason: %s", imagePath.c_str(),
                              error.description.c_str()));
        return error;
    }
    if (imagePath.empty()) {
        QVSetAppError(&error, QVErrorFailed, "The disk image record has no location.");
        QV_LOG_ERROR(QVFormat("error writing data for diskinfo: %s; to url: %s; reason: %s", imagePath.c_str(),
                              imagePath.c_str(), error.description.c_str()));
        return error;
    }
    const std::string path = fileInImage(imagePath);
    if (!QVWriteFileAtomically(path, *xml, &error, 0600)) {
        QV_LOG_ERROR(QVFormat("error writing data for diskinfo: %s; to url: %s; reason: %s", imagePath.c_str(),
                              path.c_str(), error.description.c_str()));
        return error;
    }
    return std::nullopt;
}

DictRef QVDiskInfoRead(const std::string& imagePath, QVError* error) {
    const std::string path = fileInImage(imagePath);
    auto bytes = QVReadFile(path, error, QVPlainPropertyListLimits.maxBytes);
    if (!bytes) return nullptr;
    auto value = QVPropertyListFromData(*bytes, error);
    if (!value) return nullptr;
    DictRef dict = value->toDict();
    if (!dict) {
        QVSetAppError(error, QVErrorFailed, "'" + path + "' holds no dictionary.");
        return nullptr;
    }
    const Value version = QVDictGet(*dict, QVDiskInfoVersionKey);
    if (!version.isNumber() || version.toInt() < 1) {
        QVSetAppError(error, QVErrorFailed, "'" + path + "' carries no format version.");
        return nullptr;
    }
    if (version.toInt() > QVDiskInfoFileVersion) {
        QVSetAppError(error, QVErrorFailed,
                      QVFormat("'%s' was written by a newer version (format %lld).", path.c_str(),
                               static_cast<long long>(version.toInt())));
        return nullptr;
    }
    return dict;
}

} // namespace qv
