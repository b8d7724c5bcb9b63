#include "automation/FolderActionsEditor.h"

#include "automation/ActionsCache.h"
#include "automation/ActionsManager.h"
#include "disk/RunningApplications.h"
#include "disk/URLHelpers.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "notify/QVNotificationCenter.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

bool listAimsAt(const ArrayRef& actions, const std::string& path) {
    if (!actions || path.empty()) return false;
    for (const Value& item : *actions)
        if (QVTrimmedPath(FolderActionRef{item.as<QVRecord>()}.url().toURLPath()) == path) return true;
    return false;
}

} // namespace

FolderActionsEditor::FolderActionsEditor(QVRecordRef folder) : folder_(std::move(folder)) {}

ArrayRef FolderActionsEditor::listNamed(const char* key) const {
    if (!folder_) return std::make_shared<Array>();
    ArrayRef list = folder_->valueForKey(key).toArray();
    if (!list) {
        list = std::make_shared<Array>();
        folder_->setValueForKey(Value(list), key);
    }
    return list;
}

ArrayRef FolderActionsEditor::unlockActions() const { return listNamed("unlockActions"); }
ArrayRef FolderActionsEditor::lockActions() const { return listNamed("lockActions"); }

std::string FolderActionsEditor::wordForAction(int64_t code) {
    switch (code) {
        case QVActionOpen: return "Open";
        case QVActionQuit: return "Quit";
        case QVActionUnlockFolder: return "Unlock Folder";
        case QVActionLockFolder: return "Lock Folder";
        default: return "";
    }
}

std::string FolderActionsEditor::iconForAction(int64_t code) {
    switch (code) {
        case QVActionOpen: return "action-open.png";
        case QVActionQuit: return "action-close.icns";
        case QVActionUnlockFolder: return "action-unlock.png";
        case QVActionLockFolder: return "action-lock.png";
        default: return "";
    }
}

std::string FolderActionsEditor::nameForURL(const std::string& url) {
    if (url.empty()) return "";
    if (isApp(url)) {
        std::string name;
        if (auto application = QVDesktopApplicationAtPath(url)) name = application->name;
        // An entry without a name of its own goes by ours.
        if (name.empty()) name = QVAppErrorDomain();
        if (!name.empty()) return name;
    }
    return QVLastPathComponent(url);
}

FolderActionsEditor::Row FolderActionsEditor::rowForAction(const QVRecordRef& action) {
    FolderActionRef a{action};
    const int64_t code = a.action().toInt();
    return Row{nameForURL(a.url().toURLPath()), iconForAction(code), wordForAction(code)};
}

std::vector<FolderActionsEditor::Row> FolderActionsEditor::rows(bool lock) const {
    std::vector<Row> out;
    for (const Value& item : *actions(lock)) out.push_back(rowForAction(item.as<QVRecord>()));
    return out;
}

bool FolderActionsEditor::folderItemsEnabled() const {
    DBSubdbRef subdb = QVRecordGetSubdb(folder_);
    return subdb && !subdb->folders().empty();
}

bool FolderActionsEditor::addOpenActionWithURL(const std::string& url, bool unlock) {
    if (url.empty() || !folder_) return false;
    QVRecordRef action = QVFolderActionCreate(URLValue{url}, unlock ? QVActionOpen : QVActionQuit);
    if (isApp(url)) FolderActionRef{action}.setParameter(Value(bundleID(url)));
    ArrayRef list = actions(!unlock);
    if (listAimsAt(list, QVTrimmedPath(url))) return false;
    list->push_back(Value(action));
    return true;
}

bool FolderActionsEditor::folderHasActionForFolder(const QVRecordRef& folder, const QVRecordRef& other,
                                                   bool lockAction) {
    FolderRef f{folder};
    return listAimsAt(lockAction ? f.lockActions().toArray() : f.unlockActions().toArray(), QVFolderMountpointPath(other));
}

std::vector<QVRecordRef> FolderActionsEditor::candidateFolders(bool lock) const {
    std::vector<QVRecordRef> candidates;
    DBSubdbRef subdb = QVRecordGetSubdb(folder_);
    if (!subdb) return candidates;
    const std::string self = QVFolderMountpointPath(folder_);
    for (const QVRecordRef& other : subdb->folders()) {
        if (QVFolderMountpointPath(other) == self) continue;
        if (folderHasActionForFolder(folder_, other, lock)) continue;
        candidates.push_back(other);
    }
    return candidates;
}

bool FolderActionsEditor::hasCircularDependenciesForActions(const ArrayRef& actions) const {
    (void)actions;
    DBSubdbRef subdb = QVRecordGetSubdb(folder_);
    if (!subdb) return false;
    const std::string self = QVFolderMountpointPath(folder_);
    for (const QVRecordRef& other : subdb->folders()) {
        FolderRef g{other};
        if (listAimsAt(g.lockActions().toArray(), self)) return true;
        if (listAimsAt(g.unlockActions().toArray(), self)) return false;
    }
    return false;
}

FolderActionsEditor::AddResult FolderActionsEditor::addFolderActionWithURL(const std::string& url, bool lock) {
    QVRecordRef action = QVFolderActionCreate(URLValue{url}, lock ? QVActionLockFolder : QVActionUnlockFolder);
    ArrayRef list = actions(lock);
    if (hasCircularDependenciesForActions(list)) {
        QVNotificationCenter::defaultCenter().postAlert(kCycleAlert, false);
        return AddResult::WouldCycle;
    }
    if (listAimsAt(list, QVTrimmedPath(url))) return AddResult::Duplicate;
    list->push_back(Value(action));
    return AddResult::Added;
}

bool FolderActionsEditor::deleteAction(size_t row, bool lock) {
    ArrayRef list = actions(lock);
    if (row >= list->size()) return false;
    list->erase(list->begin() + static_cast<std::ptrdiff_t>(row));
    return true;
}

void FolderActionsEditor::done() {
    if (DBSubdbRef subdb = QVRecordGetSubdb(folder_)) {
        QVError error;
        if (!subdb->save(&error)) QV_LOG_ERROR(QVFormat("couldn't save the folder actions: %s", error.description.c_str()));
    }
    ActionsCache& cache = ActionsCache::actionsCache();
    cache.setActionsForFolder(folder_);
    cache.saveToDisk();
}

} // namespace qv
