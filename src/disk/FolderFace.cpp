// Kept apart from the other record makers: it alone needs the mount test of disk/,
// so programs that never make a face don't link it.
#include "disk/FolderState.h"
#include "vault/Schemas.h"

namespace qv {

QVRecordRef QVFolderFaceCreate(const QVRecordRef& folder) {
    FolderFaceRef face{QVRecordForProtocol(FolderFace)};
    face.setFolder(Value(folder));
    // The mount test's answer as it stands (true means mounted): see Schemas.h.
    face.setLocked(Value(QVFolderIsUnlocked(folder, nullptr)));
    face.setStatusColor(QVDefaultStatusColor());
    return face.record;
}

} // namespace qv
