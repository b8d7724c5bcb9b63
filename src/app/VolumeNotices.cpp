#include "app/VolumeNotices.h"

#include "app/FolderList.h"
#include "toolkit/PathText.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

std::string mountpointOf(const QVRecordRef& face) {
    return QVFolderMountpointPath(FolderFaceRef{face}.folder().as<QVRecord>());
}

} // namespace

void QVFolderStatusChangedOutside(const std::string& path, bool locked) {
    const std::string wanted = QVTrimmedPath(path);
    for (const QVRecordRef& face : FolderList::singleton().faces())
        if (mountpointOf(face) == wanted) presentFolderFace(face, FacePresentation{.locked = locked});
}

void QVUpdateExternalImages(const std::string& path) {
    const std::string volume = QVTrimmedPath(path);
    const std::string prefix = volume == "/" ? volume : volume + "/";
    // A copy: queueing may change the list's faces.
    const std::vector<QVRecordRef> faces = FolderList::singleton().faces();
    for (const QVRecordRef& face : faces) {
        const std::string mountpoint = mountpointOf(face);
        if (mountpoint != volume && mountpoint.rfind(prefix, 0) == 0) FolderList::singleton().statFolderFace(face);
    }
}

void QVApplyMountChanges(const QVMountChanges& changes) {
    for (const std::string& path : changes.mounted) {
        QVFolderStatusChangedOutside(path, false);
        QVUpdateExternalImages(path);
    }
    for (const std::string& path : changes.unmounted) {
        QVFolderStatusChangedOutside(path, true);
        QVUpdateExternalImages(path);
    }
}

QVVolumeNotices::QVVolumeNotices() : watcher_(QVApplyMountChanges) {}

bool QVVolumeNotices::start(const std::string& mountinfoPath) { return watcher_.start(mountinfoPath); }

} // namespace qv
