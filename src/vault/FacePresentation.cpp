#include "vault/FacePresentation.h"

#include <cstdint>

#include "toolkit/HumanReadable.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/Schemas.h"

namespace qv {

void applyFacePresentation(const QVRecordRef& face, const FacePresentation& change) {
    if (!face) return;
    FolderFaceRef ff{face};
    if (change.indeterminate) ff.setProgressIndeterminate(Value(*change.indeterminate));
    if (change.animate) ff.setProgressAnimate(Value(*change.animate));
    if (change.percentage) ff.setProgressPercentage(Value(*change.percentage));
    if (change.status) QVSetFaceStatusText(face, *change.status, change.statusIsError);
    if (change.cancelable) ff.setCancelable(Value(*change.cancelable));
    if (change.locked) ff.setLocked(Value(*change.locked));
}

void presentFolderFace(const QVRecordRef& face, FacePresentation change, bool wait) {
    if (!face) return;
    performBlockOnMainThread([face, change = std::move(change)] { applyFacePresentation(face, change); }, wait);
}

void QVSetFaceStatusText(const QVRecordRef& face, const std::string& text, bool error) {
    if (!face) return;
    FolderFaceRef ff{face};
    ff.setStatusText(Value(text));
    ff.setStatusColor(error ? QVErrorStatusColor() : QVNormalStatusColor());
}

void QVDisplayFolderSizeInfo(const QVRecordRef& face) {
    if (!face) return;
    FolderFaceRef ff{face};
    FolderRef folder{ff.folder().as<QVRecord>()};
    DiskInfoRef diskinfo{folder.diskinfo().as<QVRecord>()};
    // Sizes are unsigned 64-bit quantities kept in signed record numbers.
    const uint64_t size = static_cast<uint64_t>(folder.folderSize().toInt());
    const uint64_t capacity = static_cast<uint64_t>(diskinfo.capacity().toInt());
    ff.setProgressAnimate(Value(false));
    ff.setProgressIndeterminate(Value(false));
    ff.setProgressPercentage(Value(capacity ? double(size) / double(capacity) : 0.0));
    QVSetFaceStatusText(face, bytesToHumanReadableString(size) + " of " + bytesToHumanReadableString(capacity) + " used",
                        false);
}

Value QVNormalStatusColor() {
    static const Value color(std::make_shared<QVColor>(0.345, 0.345, 0.345, 1.0));
    return color;
}

Value QVErrorStatusColor() {
    static const Value color(std::make_shared<QVColor>(0.8, 0.06, 0.13, 1.0));
    return color;
}

bool QVIsErrorStatusColor(const Value& color) {
    auto c = color.as<QVColor>();
    auto e = QVErrorStatusColor().as<QVColor>();
    return c && c->red() == e->red() && c->green() == e->green() && c->blue() == e->blue() &&
           c->alpha() == e->alpha();
}

namespace {
FolderFacesHost* theHost = nullptr;
} // namespace

void QVSetFolderFacesHost(FolderFacesHost* host) { theHost = host; }

FolderFacesHost* QVFolderFacesHost() { return theHost; }

QVRecordRef QVFaceOnShowWithMountpoint(const std::string& path) {
    const std::string wanted = QVTrimmedPath(path);
    if (wanted.empty() || !theHost) return nullptr;
    for (const QVRecordRef& face : theHost->faces())
        if (QVFolderMountpointPath(FolderFaceRef{face}.folder().as<QVRecord>()) == wanted) return face;
    return nullptr;
}

} // namespace qv
