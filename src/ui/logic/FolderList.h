#pragma once
// The folder list: the owner of the FolderFace of every folder on show and of the
// Folder Set they come from, and the one writer of a face's status line at rest.
//
// Main thread only: tasks reach these operations through blocks posted to the
// main thread (toolkit/MainThread.h), never by calling them from their own thread.
#include <memory>
#include <string>
#include <vector>

#include "vault/QVRecord.h"

namespace qv {

class DBSubdb;

class FolderList {
public:
    // The one list of the process.
    static FolderList& singleton();

    // The faces on show, in `position` order.
    const std::vector<QVRecordRef>& faces() const { return faces_; }
    // The Folder Set on show, or null.
    const std::shared_ptr<DBSubdb>& subdb() const { return subdb_; }

    // Sets the face's status line, then its colour: the error colour when `error`,
    // else the normal one. A null face is ignored.
    void setStatusText(const std::string& text, bool error, const QVRecordRef& face);

    // The row at rest: progress stopped (not animating, not indeterminate), the bar
    // at folderSize / capacity of the folder's image (0 when the capacity is
    // unknown or 0), and "<size> of <capacity> used" in the normal colour.
    void displayFolderSizeInfo(const QVRecordRef& face);

    // The two status colours, each made once and then shared: grey 0.345 for
    // normal text, red (0.8, 0.06, 0.13) for errors; both opaque.
    static Value normalStatusColor();
    static Value errorStatusColor();
    // Whether a face's statusColor shows an error (compared by its components, so
    // a colour read back from elsewhere counts too).
    static bool isErrorStatusColor(const Value& color);

private:
    FolderList() = default;

    std::vector<QVRecordRef> faces_;
    std::shared_ptr<DBSubdb> subdb_;
};

} // namespace qv
