#include "vault/Schemas.h"

#include <QUuid>
#include <cmath>

#include "toolkit/PathText.h"
#include "vault/KeyedArchive.h"

namespace qv {

namespace {

ObjectRef decodeColor(KeyedDecoder& coder) {
    double c[4] = {coder.decodeDouble("red"), coder.decodeDouble("green"), coder.decodeDouble("blue"),
                   coder.decodeDouble("alpha")};
    if (coder.failed()) return nullptr;
    for (double x : c) {
        if (!std::isfinite(x) || x < 0 || x > 1) {
            coder.fail("a colour component outside 0 to 1");
            return nullptr;
        }
    }
    return std::make_shared<QVColor>(c[0], c[1], c[2], c[3]);
}

const bool kColorRegistered = QVRegisterArchivableClass("QVColor", decodeColor);

} // namespace

bool QVColor::encodeWithCoder(KeyedEncoder& coder) const {
    (void)kColorRegistered;
    coder.encodeDouble(red_, "red");
    coder.encodeDouble(green_, "green");
    coder.encodeDouble(blue_, "blue");
    coder.encodeDouble(alpha_, "alpha");
    return true;
}

namespace {

// A face's `currentOp` in its record: operations are no values of their own.
class OperationBox : public Object {
public:
    explicit OperationBox(OperationRef operation) : operation(std::move(operation)) {}
    std::string className() const override { return std::string(); }  // never archived
    const OperationRef operation;
};

} // namespace

OperationRef FolderFaceRef::currentOp() const {
    if (!record) return nullptr;
    const auto box = record->valueForKey("currentOp").as<OperationBox>();
    return box ? box->operation : nullptr;
}

void FolderFaceRef::setCurrentOp(const OperationRef& operation) const {
    if (!record) return;
    record->setValueForKey(operation ? Value(std::make_shared<OperationBox>(operation)) : Value(), "currentOp");
}

Value QVDefaultStatusColor() { return Value(std::make_shared<QVColor>(0.345, 0.345, 0.345, 1.0)); }

std::string QVNewUUIDString() {
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().toStdString();
}

QVRecordRef QVFolderCreate(const QVRecordRef& storage, const URLValue& mountpoint) {
    FolderRef folder{QVRecordForProtocol(Folder)};
    folder.setUuid(Value(QVNewUUIDString()));
    folder.setStorage(Value(storage));
    folder.setMountpoint(Value(mountpoint));
    folder.setAutounlock(Value(false));
    folder.setEncrypted(Value(false));
    folder.setAutolock(Value(0));
    folder.setLockActions(Value::newArray());
    folder.setUnlockActions(Value::newArray());
    return folder.record;
}

std::string QVFolderMountpointPath(const QVRecordRef& folder) {
    return QVTrimmedPath(FolderRef{folder}.mountpoint().toURLPath());
}

QVRecordRef QVStorageCreate(const std::string& name, const URLValue& url) {
    StorageRef storage{QVRecordForProtocol(Storage)};
    storage.setName(Value(name));
    storage.setUrl(Value(url));
    return storage.record;
}

int64_t QVFolderActionPriority(int64_t action) {
    switch (action) {
    case 1: return 99;
    case 2: return 1;
    case 3: return 0;
    case 4: return 98;
    default: return 0;
    }
}

QVRecordRef QVFolderActionCreate(const URLValue& url, int64_t action) {
    FolderActionRef folderAction{QVRecordForProtocol(FolderAction)};
    folderAction.setAction(Value(static_cast<long long>(action)));
    folderAction.setUrl(Value(url));
    folderAction.setPriority(Value(static_cast<long long>(QVFolderActionPriority(action))));
    return folderAction.record;
}

} // namespace qv
