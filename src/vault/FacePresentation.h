#pragma once
// How a folder looks on its row: the presentation fields of a FolderFace
// (progress, status text and colour, cancelable, locked), and the list that
// shows the faces as the layers below it see it.
//
// Every layer that shows progress (the disk operations, the tasks, the folder
// actions) changes these fields through presentFolderFace, which applies them on
// the main thread; the folder list and the screens observe the faces and never
// have to be called for it.
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vault/QVRecord.h"

namespace qv {
class DBSubdb;
}

namespace qv {

// A change to a face's presentation: each part is changed only when given, in
// the order of the fields below (the status colour right after the text).
struct FacePresentation {
    std::optional<bool> indeterminate = std::nullopt;
    std::optional<bool> animate = std::nullopt;
    std::optional<double> percentage = std::nullopt;
    std::optional<std::string> status = std::nullopt;
    // With `status`: the error colour instead of the normal one.
    bool statusIsError = false;
    std::optional<bool> cancelable = std::nullopt;
    std::optional<bool> locked = std::nullopt;
};

// Applies the change on the main thread (toolkit/MainThread.h): without `wait`
// it is queued, with it the caller blocks until it is done (and it runs in
// place when the caller is the main thread). A null face is ignored.
void presentFolderFace(const QVRecordRef& face, FacePresentation change, bool wait = false);

// Applies the change here and now; for code already on the main thread.
void applyFacePresentation(const QVRecordRef& face, const FacePresentation& change);

// Sets the face's status line, then its colour: the error colour when `error`,
// else the normal one. Main thread; a null face is ignored.
void QVSetFaceStatusText(const QVRecordRef& face, const std::string& text, bool error);

// The row at rest: progress stopped (not animating, not indeterminate), the bar
// at folderSize / capacity of the folder's image (0 when the capacity is
// unknown or 0), and "<size> of <capacity> used" in the normal colour. Main thread.
void QVDisplayFolderSizeInfo(const QVRecordRef& face);

// The two status colours, each made once and then shared: grey 0.345 for
// normal text, red (0.8, 0.06, 0.13) for errors; both opaque.
Value QVNormalStatusColor();
Value QVErrorStatusColor();
// Whether a face's statusColor shows an error (compared by its components, so
// a colour read back from elsewhere counts too).
bool QVIsErrorStatusColor(const Value& color);

// The list that shows faces (the folder list, a layer above), as the layers
// below it reach it: a folder action looks another folder's face up among the
// faces on show, a task whose folder failed to come in or a rescue takes the
// face away. The list lends itself while it lives; without one nothing is on
// show. Main thread only, like the list itself.
class FolderFacesHost {
public:
    virtual ~FolderFacesHost() = default;
    // The faces on show, in `position` order.
    virtual const std::vector<QVRecordRef>& faces() const = 0;
    // The Folder Set on show, or null.
    virtual const std::shared_ptr<DBSubdb>& subdb() const = 0;
    // Takes the face out of the list and its folder out of the set on show, and
    // saves the set.
    virtual void removeFolderFace(const QVRecordRef& face) = 0;
};
void QVSetFolderFacesHost(FolderFacesHost* host);
// The host, or null when no list shows faces in this process.
FolderFacesHost* QVFolderFacesHost();
// The face on show of the folder at `path` (trailing slashes ignored), or null.
QVRecordRef QVFaceOnShowWithMountpoint(const std::string& path);

} // namespace qv
