#include "automation/ActionsCache.h"

#include "vault/Schemas.h"

namespace qv {

ActionsCache& ActionsCache::actionsCache() {
    static ActionsCache* cache = new ActionsCache();  // lives as long as the process
    return *cache;
}

ArrayRef ActionsCache::lockActionsForURL(const std::string& url) { return actionsForURL(url, lockActions_); }

ArrayRef ActionsCache::unlockActionsForURL(const std::string& url) { return actionsForURL(url, unlockActions_); }

void ActionsCache::setActionsForFolder(const QVRecordRef& folder) {
    FolderRef f{folder};
    if (!f) return;
    const std::string url = f.mountpoint().toURLPath();
    if (url.empty()) return;
    setActions(f.lockActions().toArray(), url, lockActions_);
    setActions(f.unlockActions().toArray(), url, unlockActions_);
}

ArrayRef ActionsCache::actionsForURL(const std::string& url, const Dict& dictionary) {
    if (url.empty()) return nullptr;
    std::lock_guard lock(mutex_);
    return QVDictGet(dictionary, url).toArray();
}

void ActionsCache::setActions(const ArrayRef& actions, const std::string& url, Dict& dictionary) {
    if (!actions || url.empty()) return;
    std::lock_guard lock(mutex_);
    dictionary[url] = Value(actions);
}

void ActionsCache::clear() {
    std::lock_guard lock(mutex_);
    lockActions_.clear();
    unlockActions_.clear();
}

} // namespace qv
