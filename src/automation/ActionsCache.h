#pragma once
// The process's own note of every folder's actions, by mount point path. It
// keeps the lists of each folder of every Folder Set that was shown since the
// program started, so that auto-lock still finds a folder's lock actions when
// the folder's own record has come up without them.
//
// The lists kept are the folders' own arrays (not copies): an edit of a
// folder's actions shows here at once. The one lasting copy of the actions is
// the folder's record in its Folder Set; saveToDisk and loadFromDisk are kept
// as the moments at which a note on disk would be written and read, and write
// and read nothing, so that no list of protected folders ever lies outside an
// encrypted set.
//
// Main thread only (the folder list writes it, auto-lock's timer reads it); a
// mutex guards it all the same, so that a stray reader elsewhere can't tear it.
#include <mutex>
#include <string>

#include "vault/QVRecord.h"
#include "vault/Value.h"

namespace qv {

class ActionsCache {
public:
    // The one cache of the process.
    static ActionsCache& actionsCache();

    ActionsCache() = default;
    ActionsCache(const ActionsCache&) = delete;
    ActionsCache& operator=(const ActionsCache&) = delete;

    // The two dictionaries: mount point path to that folder's action array.
    Dict& lockActions() { return lockActions_; }
    Dict& unlockActions() { return unlockActions_; }

    // The lists kept for a mount point path; null when none is kept.
    ArrayRef lockActionsForURL(const std::string& url);
    ArrayRef unlockActionsForURL(const std::string& url);

    // Keeps both lists of the folder under its mount point. Nothing for a null
    // folder or one without a mount point.
    void setActionsForFolder(const QVRecordRef& folder);

    // dictionary[url]; null for an empty path.
    ArrayRef actionsForURL(const std::string& url, const Dict& dictionary);
    // dictionary[url] = actions; ignores null actions or an empty path.
    void setActions(const ArrayRef& actions, const std::string& url, Dict& dictionary);

    // Called when the actions screen closes with OK, and at start; they keep
    // nothing on disk (see the top of this file).
    void saveToDisk() {}
    void loadFromDisk() {}

    // Forgets every entry (a new session; tests).
    void clear();

private:
    std::recursive_mutex mutex_;
    Dict lockActions_;
    Dict unlockActions_;
};

} // namespace qv
