#pragma once
// What the folder actions screen does, without its widgets: the rows it shows,
// adding and deleting actions, the folders it offers as targets, the
// dependency-cycle test, and what OK and Cancel do. The screen edits the
// folder record's own arrays in place; Cancel therefore undoes nothing, and
// what was edited reaches the disk with the next save of the Folder Set.
//
// Main thread only, as every change of a Folder Set.
#include <cstdint>
#include <string>
#include <vector>

#include "vault/QVRecord.h"

namespace qv {

class FolderActionsEditor {
public:
    // The labels and column identifiers of the two tables.
    static constexpr const char* kUnlockTitle = "Unlock Actions";
    static constexpr const char* kLockTitle = "Lock Actions";
    static constexpr const char* kUnlockColumnId = "UnlockActionId";
    static constexpr const char* kLockColumnId = "LockActionId";
    static constexpr const char* kCycleAlert = "Folder action not added because it would create a dependency cycle.";

    explicit FolderActionsEditor(QVRecordRef folder);

    const QVRecordRef& folder() const { return folder_; }

    // The folder's lists, made (empty) when the record has none.
    ArrayRef unlockActions() const;
    ArrayRef lockActions() const;
    ArrayRef actions(bool lock) const { return lock ? lockActions() : unlockActions(); }

    // One row of a table: the item's name, the action's icon and its word.
    struct Row {
        std::string name;
        std::string icon;
        std::string word;
    };
    // The rows in list order (not in the order the actions run).
    std::vector<Row> rows(bool lock) const;
    static Row rowForAction(const QVRecordRef& action);
    // "Open", "Quit", "Unlock Folder", "Lock Folder"; empty for another code.
    static std::string wordForAction(int64_t code);
    static std::string iconForAction(int64_t code);
    // An application's name, or the item's last path component; "" for no URL.
    static std::string nameForURL(const std::string& url);

    // Whether the menus offer "Unlock Folder..." and "Lock Folder...": the
    // Folder Set holds at least one folder.
    bool folderItemsEnabled() const;

    // The chooser of an item (Open) or of an application (Quit) said OK with
    // `url`: an Open action for the unlock list, a Quit action for the lock
    // list, naming the application when the item is one. A URL that the list
    // already holds is dropped without a word (each list checks only itself).
    // True when the action was added.
    bool addOpenActionWithURL(const std::string& url, bool unlock);

    // The folders that the folder chooser offers for the lock or unlock list:
    // every folder of the set but this one and those the list already names.
    std::vector<QVRecordRef> candidateFolders(bool lock) const;
    // Whether `folder`'s lock (or unlock) list has an action aimed at `other`.
    static bool folderHasActionForFolder(const QVRecordRef& folder, const QVRecordRef& other, bool lockAction);

    // The folder chooser said OK with another folder's mount point: a Lock
    // Folder or Unlock Folder action, unless the cycle test refuses it (then an
    // alert says so) or the list already names that folder.
    enum class AddResult { Added, Duplicate, WouldCycle };
    AddResult addFolderActionWithURL(const std::string& url, bool lock);

    // The dependency-cycle test. Let F be this folder: walk the folders of F's
    // set in order (F among them); the first whose lock list aims at F answers
    // yes, the first whose unlock list aims at F answers no and ends the walk;
    // no such folder, no. Only direct references count and any action code
    // does. The argument is not looked at: the test is about who points at F,
    // not about the action to be added.
    bool hasCircularDependenciesForActions(const ArrayRef& actions) const;

    // Removes the row of the list when it is within bounds.
    bool deleteAction(size_t row, bool lock);

    // OK: saves the Folder Set, hands both lists to the actions cache and asks
    // it to save. Cancel closes the screen and nothing else.
    void done();
    void cancel() {}

private:
    ArrayRef listNamed(const char* key) const;

    QVRecordRef folder_;
};

} // namespace qv
