#include "app/FolderList.h"

#include <algorithm>
#include <cstdint>
#include <unordered_set>

#include "app/AutoUnlockCount.h"
#include "automation/ActionsCache.h"
#include "disk/DesktopOpen.h"
#include "disk/DiskMaster.h"
#include "disk/FolderState.h"
#include "disk/RescueFrontEnd.h"
#include "disk/StorageLocations.h"
#include "disk/URLHelpers.h"
#include "notify/QVNotificationCenter.h"
#include "tasks/BaseFolderTask.h"
#include "tasks/TaskQueue.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/DBMaster.h"
#include "vault/DBSubdb.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

namespace qv {

namespace {

// The action code of "open an item" among a folder's actions.
constexpr int64_t kOpenItemAction = 1;

std::string folderPath(const QVRecordRef& face) {
    FolderRef folder{FolderFaceRef{face}.folder().as<QVRecord>()};
    return folder ? folder.mountpoint().toURLPath() : std::string();
}

// Lower case for ASCII letters; other bytes as they are (names are not always UTF-8).
std::string folded(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
    return s;
}

} // namespace

// Hears the faces' `cancelable`: a running task shows the cancel control, a
// face at rest its information control.
class FolderList::CancelableObserver : public QVRecordObserver {
public:
    void recordWillChangeValueForKey(const QVRecord&, const std::string&) override {}
    void recordDidChangeValueForKey(const QVRecord& record, const std::string& key) override {
        if (key != "cancelable") return;
        FolderList& list = FolderList::singleton();
        for (const auto& face : list.faces_) {
            if (face.get() != &record) continue;
            const bool cancelable = FolderFaceRef{face}.cancelable().toBool();
            if (QVIsMainThread()) {
                list.setActionIcon(!cancelable, face);
            } else {
                QVRecordRef kept = face;
                performBlockOnMainThread([kept, cancelable] { FolderList::singleton().setActionIcon(!cancelable, kept); });
            }
            return;
        }
    }
};

FolderList::FolderList() : observer_(std::make_shared<CancelableObserver>()) {
    // The layers below find the faces on show, and take one away, through this.
    QVSetFolderFacesHost(this);
}

FolderList& FolderList::singleton() {
    static FolderList* list = new FolderList();  // lives as long as the process; never torn down at exit
    return *list;
}

void FolderList::setActionIcon(bool flag, const QVRecordRef& face) {
    if (!face) return;
    FolderFaceRef ff{face};
    if (!flag) {
        ff.setActionIcon(Value("Cancel"));
        ff.setActionIconAlt(Value("CancelPressed"));
    } else if (detailsFace_ == face) {
        ff.setActionIcon(Value("Back"));
        ff.setActionIconAlt(Value("BackPressed"));
    } else {
        ff.setActionIcon(Value("Info"));
        ff.setActionIconAlt(Value("InfoPressed"));
    }
}

void FolderList::observeFolderFace(const QVRecordRef& face) {
    if (face) face->addObserver(observer_, "cancelable");
}

void FolderList::unobserveFolderFace(const QVRecordRef& face) {
    if (face) face->removeObserver(observer_.get(), "cancelable");
}

// ---------------------------------------------------------------------- the set on show

void FolderList::loadSubdb(const std::shared_ptr<DBSubdb>& subdb) {
    if (subdb_) {
        for (const auto& face : faces_) unobserveFolderFace(face);
        if (subdb_ != subdb && subdb_->masterdb()) subdb_->masterdb()->returnSubDB(subdb_);
    }
    subdb_ = subdb;
    faces_.clear();
    selected_.reset();
    if (subdb_) {
        for (const auto& folder : subdb_->folders()) faces_.push_back(QVFolderFaceCreate(folder));
        std::stable_sort(faces_.begin(), faces_.end(), [](const QVRecordRef& a, const QVRecordRef& b) {
            return FolderRef{FolderFaceRef{a}.folder().as<QVRecord>()}.position().toInt() <
                   FolderRef{FolderFaceRef{b}.folder().as<QVRecord>()}.position().toInt();
        });
    }
    for (const auto& face : faces_) {
        setupFolderFace(face);
        // Every folder that was on show keeps its actions in the cache.
        ActionsCache::actionsCache().setActionsForFolder(FolderFaceRef{face}.folder().as<QVRecord>());
    }
    facesChanged();
}

void FolderList::returnSubDB() {
    for (const auto& face : faces_) unobserveFolderFace(face);
    faces_.clear();
    selected_.reset();
    if (subdb_ && subdb_->masterdb()) subdb_->masterdb()->returnSubDB(subdb_);
    subdb_.reset();
    facesChanged();
}

void FolderList::setupFolderFace(const QVRecordRef& face) {
    if (!face) return;
    FolderFaceRef ff{face};
    const QVRecordRef folder = ff.folder().as<QVRecord>();
    const std::string path = folderPath(face);
    QVError reason;
    if (!path.empty() && checkResourceIsReachable(path, &reason)) {
        QVDisplayFolderSizeInfo(face);
        ff.setLocked(Value(!QVFolderIsUnlocked(folder, nullptr)));
    } else {
        QV_LOG_WARN(QVFormat("folder mountpoint unreachable '%s': %s", path.c_str(), reason.description.c_str()));
        QVSetFaceStatusText(face, "Mountpoint missing!", true);
        ff.setLocked(Value(true));
    }
    setActionIcon(true, face);
    observeFolderFace(face);
}

// ---------------------------------------------------------------------- user operations

bool FolderList::queueTask(const OperationRef& operation, const char* what) {
    if (!operation) {
        QV_LOG_ERROR(QVFormat("no %s task to queue", what));
        return false;
    }
    QVError error;
    if (!addFolderTask(queue_ ? *queue_ : QVAppOperationQueue(), operation, &error)) {
        QV_LOG_ERROR(QVFormat("couldn't queue the %s task: %s", what, error.description.c_str()));
        return false;
    }
    return true;
}

OperationRef FolderList::restoreFolderFace(const QVRecordRef& face) {
    OperationRef operation = face && makers_.decrypt ? makers_.decrypt(face) : nullptr;
    return queueTask(operation, "restoring") ? operation : nullptr;
}

bool FolderList::encryptFolder(const QVRecordRef& folder) {
    if (!folder || !subdb_) return false;
    FolderRef f{folder};
    if (!subdb_->addFolder(folder)) {
        QV_LOG_ERROR(QVFormat("%s: failed to add folder: %s", "encryptFolder", f.mountpoint().toURLPath().c_str()));
        return false;
    }
    QVRecordRef face = QVFolderFaceCreate(folder);
    selectNothing();
    observeFolderFace(face);
    faces_.push_back(face);
    search_.clear();  // an inserted row clears the filter
    showsEmptyList_ = false;
    f.setPosition(Value(int64_t(faces_.size()) - 1));
    QVRecordSetSubdb(folder, subdb_);
    facesChanged();
    return queueTask(makers_.encrypt ? makers_.encrypt(face) : nullptr, "encrypting");
}

bool FolderList::importSparseBundle(const QVRecordRef& face) {
    const QVRecordRef given = FolderFaceRef{face}.folder().as<QVRecord>();
    if (!given || !subdb_) return false;
    FolderRef from{given};
    DiskInfoRef fromInfo{from.diskinfo().as<QVRecord>()};
    QVRecordRef folder = QVFolderCreate(QVStorageDefault(), URLValue{from.mountpoint().toURLPath()});
    QVRecordRef diskinfo = QVDiskInfoForFolder(folder);
    if (!diskinfo) return false;
    FolderRef f{folder};
    DiskInfoRef info{diskinfo};
    info.setUrl(fromInfo.url());
    info.setFilesystem(fromInfo.filesystem());
    info.setEncryption(fromInfo.encryption());
    f.setDiskinfo(Value(diskinfo));
    f.setEncrypted(from.encrypted());
    f.setPassword(from.password());
    f.setMountpoint(from.mountpoint());
    QVRecordRef imported = QVFolderFaceCreate(folder);
    FolderFaceRef{imported}.setLocked(FolderFaceRef{face}.locked());

    selectNothing();
    faces_.push_back(imported);
    search_.clear();
    showsEmptyList_ = false;
    f.setPosition(Value(int64_t(faces_.size())));
    QVRecordSetSubdb(folder, subdb_);
    observeFolderFace(imported);
    return queueTask(makers_.import ? makers_.import(imported) : nullptr, "import");
}

bool FolderList::toggleFolderLockOfFolderFace(const QVRecordRef& face, bool shiftHeld) {
    if (!face) return false;
    FolderFaceRef ff{face};
    const bool locked = !ff.locked().toBool();  // the switch already flipped it
    ff.setLocked(Value(locked));
    if (!locked) return queueTask(makers_.lock ? makers_.lock(face) : nullptr, "locking");
    const bool open = shouldOpenFolderInFinder(face, shiftHeld);
    return queueTask(makers_.unlock ? makers_.unlock(face, open) : nullptr, "unlocking");
}

bool FolderList::statFolderFace(const QVRecordRef& face) {
    if (!face || !statMaker_) return false;
    return queueTask(statMaker_(face), "measuring");
}

void FolderList::removeFolderFace(const QVRecordRef& face) {
    if (!face) return;
    unobserveFolderFace(face);
    const std::string path = folderPath(face);
    auto it = std::find(faces_.begin(), faces_.end(), face);
    if (it != faces_.end()) faces_.erase(it);
    if (detailsFace_ == face) detailsFace_.reset();
    if (selected_ && *selected_ >= arrangedFaces().size()) selected_.reset();
    facesChanged();
    checkEmptyFolderList();
    if (subdb_) {
        subdb_->removeFolderWithMountpoint(path);
        subdb_->save(nullptr);
    }
}

void FolderList::forceRemoveEntry(const QVRecordRef& face) {
    if (!face) return;
    const QVRecordRef folder = FolderFaceRef{face}.folder().as<QVRecord>();
    FolderRef f{folder};
    const std::string image = f ? DiskInfoRef{f.diskinfo().as<QVRecord>()}.url().toURLPath() : std::string();
    if (!image.empty() && checkResourceIsReachable(image, nullptr)) {
        // Queued, so that the popover is gone before the save panel shows.
        performBlockOnMainThread([] {
            if (auto close = QVCurrentClosePopover()) close();
        });
        performBlockOnMainThread([face] { DiskMaster::rescueDiskImageForFolderFace(face, true); });
    } else {
        static const std::string kMissing =
            "The disk image is missing. Are you sure you want to force remove this folder?";
        if (auto activate = QVCurrentActivateApplication()) activate();
        QV_LOG_WARN(kMissing);
        if (QVNotificationCenter::defaultCenter().postYesNo("Missing Disk Image\n\n" + kMissing, false)) {
            // The set holds the only other copy of the password: the folder
            // stays unless the password reached the user.
            if (DiskMaster::rescuePassWord(folder, std::nullopt)) {
                if (f) f.setEncrypted(Value(false));
                removeFolderFace(face);
            }
        }
    }
    // The folder is no longer one to unlock at login, whatever became of it.
    if (f && f.autounlock().toBool()) AutoUnlockCount::increment(-1);
}

void FolderList::openFolderFace(const QVRecordRef& face) {
    const std::string path = folderPath(face);
    if (path.empty()) return;
    if (FolderFaceRef{face}.locked().toBool())
        QVRevealInFileManager({path});
    else
        QVOpenURL(path);
}

bool FolderList::shouldOpenFolderInFinder(const QVRecordRef& face, bool shiftHeld) const {
    FolderRef folder{FolderFaceRef{face}.folder().as<QVRecord>()};
    if (ArrayRef actions = folder ? folder.unlockActions().toArray() : nullptr) {
        for (const auto& action : *actions)
            if (FolderActionRef{action.as<QVRecord>()}.action().toInt() == kOpenItemAction) return false;
    }
    const bool preference = QVUserDefaults::standardUserDefaults().boolForKey("QVOpenFolderAfterUnlock");
    return preference != shiftHeld;
}

bool FolderList::folderAction(const QVRecordRef& face) {
    if (!face || !hasCurrentOperation(face)) return false;
    FolderFaceRef{face}.setOpCanceled(Value(true));
    return true;
}

void FolderList::recordsUpdated(const std::vector<QVRecordRef>& folders) {
    auto uuidOf = [](const QVRecordRef& face) {
        return FolderRef{FolderFaceRef{face}.folder().as<QVRecord>()}.uuid().toString();
    };
    std::vector<QVRecordRef> updated;
    for (const auto& folder : folders) updated.push_back(QVFolderFaceCreate(folder));
    std::unordered_set<std::string> known, current;
    for (const auto& face : faces_) known.insert(uuidOf(face));
    for (const auto& face : updated) current.insert(uuidOf(face));
    for (const auto& face : updated)
        if (!known.count(uuidOf(face))) queueTask(makers_.encrypt ? makers_.encrypt(face) : nullptr, "encrypting");
    const std::vector<QVRecordRef> shown = faces_;
    for (const auto& face : shown)
        if (!current.count(uuidOf(face))) queueTask(makers_.decrypt ? makers_.decrypt(face) : nullptr, "restoring");
}

// ---------------------------------------------------------------------- rows

std::vector<QVRecordRef> FolderList::arrangedFaces() const {
    if (search_.empty()) return faces_;
    const std::string needle = folded(search_);
    std::vector<QVRecordRef> rows;
    for (const auto& face : faces_)
        if (folded(QVLastPathComponent(folderPath(face))).find(needle) != std::string::npos) rows.push_back(face);
    return rows;
}

void FolderList::search(const std::string& text) {
    search_ = text;
    selected_.reset();
    facesChanged();
}

bool FolderList::acceptDrop(const std::set<size_t>& indexes, size_t row) {
    if (indexes.empty() || indexes.count(row) || *indexes.rbegin() >= faces_.size()) return true;
    std::vector<QVRecordRef> moving;
    for (size_t i : indexes) moving.push_back(faces_[i]);
    size_t target = row;
    if (*indexes.begin() < target) target -= std::min(target, indexes.size());
    for (auto it = indexes.rbegin(); it != indexes.rend(); ++it) faces_.erase(faces_.begin() + long(*it));
    target = std::min(target, faces_.size());
    faces_.insert(faces_.begin() + long(target), moving.begin(), moving.end());
    for (size_t i = 0; i < faces_.size(); ++i)
        FolderRef{FolderFaceRef{faces_[i]}.folder().as<QVRecord>()}.setPosition(Value(int64_t(i)));
    if (std::shared_ptr<DBSubdb> subdb = subdb_)
        performBlockOnMainThread([subdb] { subdb->save(nullptr); }, false);
    facesChanged();
    return true;
}

void FolderList::selectNext() {
    const size_t rows = arrangedFaces().size();
    if (rows == 0) return;
    selected_ = !selected_ ? 0 : std::min(*selected_ + 1, rows - 1);
}

void FolderList::selectPrevious() {
    const size_t rows = arrangedFaces().size();
    if (rows == 0) return;
    selected_ = !selected_ ? rows - 1 : (*selected_ == 0 ? 0 : std::min(*selected_, rows) - 1);
}

void FolderList::selectRow(size_t row) {
    if (row < arrangedFaces().size())
        selected_ = row;
    else
        selected_.reset();
}

QVRecordRef FolderList::selectedFolderFace() const {
    const auto rows = arrangedFaces();
    return selected_ && *selected_ < rows.size() ? rows[*selected_] : nullptr;
}

size_t FolderList::addFacesListener(std::function<void()> listener) {
    facesListeners_[nextListener_] = std::move(listener);
    return nextListener_++;
}

void FolderList::removeFacesListener(size_t id) { facesListeners_.erase(id); }

void FolderList::facesChanged() {
    // A listener may remove itself (or another) while it hears.
    const auto listeners = facesListeners_;
    for (const auto& [id, listener] : listeners)
        if (facesListeners_.count(id) && listener) listener();
}

void FolderList::checkEmptyFolderList() {
    if (!faces_.empty()) return;
    showsEmptyList_ = true;
    if (emptyListHandler_) emptyListHandler_();
}

} // namespace qv
