#pragma once
// The import screen's logic, without widgets: a user who already has an
// encrypted sparse bundle gives its password (twice) and an empty folder to
// serve as its mount point, and the image becomes a protected folder of the
// set on show where it lies, keeping its own password. A screen (or qv) sets
// the fields, reads back the OK button's state and the info line, and calls
// ok(). Main thread only.
#include <functional>
#include <string>

#include "toolkit/QVError.h"
#include "vault/QVRecord.h"

namespace qv {

class ImportSparsebundle {
public:
    // The one screen of the process.
    static ImportSparsebundle& singleton();

    // Prepares the screen for the bundle at `bundle` and returns it: a new
    // folder of the default storage with a DiskInfo whose url is the bundle,
    // and its face; both password fields and the mount point emptied, OK
    // disabled, and the callback back to its default (the folder list's
    // importSparseBundle, then its empty-list check).
    static ImportSparsebundle& folderWithURL(const std::string& bundle);

    // The fields; each change runs validateOptions.
    void setPassword1(const std::string& password);
    void setPassword2(const std::string& password);
    const std::string& mountPoint() const { return mountPoint_; }

    // OK is enabled only when the first password is not empty, both are equal
    // and a mount point is chosen. The info line shows while the second field
    // holds text: "Passwords match", or the warning "Passwords do not match!".
    void validateOptions();
    bool okEnabled() const { return okEnabled_; }
    bool infoVisible() const { return infoVisible_; }
    bool infoIsWarning() const { return infoIsWarning_; }
    const std::string& infoText() const { return infoText_; }

    // Whether `path` may become a protected folder's mount point: the intake
    // checks of a folder to encrypt (isGoodFolderAtURL).
    static bool validateMountingPoint(const std::string& path, QVError* error);

    // A folder dropped on (or chosen for) the mount point: taken only when it
    // is a directory that is not itself a sparse bundle, is empty (the volume
    // would hide what it holds), and passes validateMountingPoint; then it
    // becomes the mount point and validateOptions runs. A refusal is logged
    // and *error says why (a screen shows it under "Invalid folder").
    bool chooseMountPoint(const std::string& path, QVError* error);

    // Whether the typed password opens the image (`qv-image imageinfo ...
    // -stdinpass`); the callback gets the error, or nothing. Blocking for the
    // length of one key derivation: a screen calls it off the main thread or
    // accepts the wait.
    void retrieveImageInfo(const std::function<void(const QVError*)>& callback);

    // Checks the password on the image. A wrong one shows the warning "Invalid
    // Password" and keeps the screen (false). Otherwise the password is stored
    // encrypted under the set's password, the folder is marked encrypted with
    // the bundle's settings and the chosen mount point, its face locked, the
    // screen dismissed (the password fields wiped) and the callback called
    // with the face (true).
    bool ok();
    // Dismisses the screen; the password fields are wiped.
    void cancel();

    // The face being prepared (null before folderWithURL).
    const QVRecordRef& folderFace() const { return folderFace_; }
    // What ok() hands the prepared face to.
    void setCallback(std::function<void(const QVRecordRef& face)> callback) { callback_ = std::move(callback); }

private:
    ImportSparsebundle() = default;
    void reset();

    std::string password1_, password2_, mountPoint_, infoText_;
    bool okEnabled_ = false, infoVisible_ = false, infoIsWarning_ = false;
    QVRecordRef folderFace_;
    std::function<void(const QVRecordRef& face)> callback_;
};

} // namespace qv
