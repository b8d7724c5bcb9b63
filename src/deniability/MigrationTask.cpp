#include "deniability/MigrationTask.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>

#include <unistd.h>

#include "deniability/FakeDiskImageTask.h"
#include "deniability/FakeImageNote.h"
#include "deniability/PDAssistant.h"
#include "disk/DiskMaster.h"
#include "disk/FileSystemVolumes.h"
#include "disk/FolderState.h"
#include "disk/StorageLocations.h"
#include "tasks/EncryptFolderTask.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "toolkit/PathText.h"
#include "vault/Locations.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"
#include "vault/UserDefaults.h"

namespace qv {

namespace {

constexpr uint32_t kMinTargetSets = 5;
constexpr uint32_t kMaxTargetSets = 15;
constexpr const char* kSkipMigrationKey = "skipmigrationTov3";
constexpr const char* kImagesLine = "Fake disk images enhance your Plausible Deniability.";

bool isImagePath(const std::string& path) {
    const std::string suffix = ".sparsebundle";
    return path.size() > suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0;
}

} // namespace

OperationRef MigrationTask::taskWithAssistant(const std::shared_ptr<PDAssistant>& assistant) {
    auto task = std::make_shared<MigrationTask>();
    task->assistant = assistant;
    return makeOperation(task, nullptr);
}

bool MigrationTask::needsVersion2Migration(const DBMasterRef& master) {
    if (!master || QVUserDefaults::standardUserDefaults().boolForKey(kSkipMigrationKey)) return false;
    switch (master->version()) {
    case 1:
        return true;
    case 2:
        return master->subDBCount() < 2;
    default:
        return false;
    }
}

namespace {

// A run that died midway may have left fake volumes mounted on temporary mount
// points of the default storage, their device processes still writing: they
// are taken away first, forcefully (nothing of them is worth keeping).
void detachLeftoverVolumes() {
    const std::string temp = QVPathByAppendingComponent(defaultDiskImageLocationURL(), "Temp");
    std::error_code ec;
    for (std::filesystem::directory_iterator it(temp, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string mount = it->path().string();
        if (!isVolumeAtURL(mount, nullptr)) continue;
        QVRecordRef folder = QVFolderCreate(QVStorageDefault(), URLValue{mount});
        QVRecordRef face = QVFolderFaceCreate(folder);
        QVError error;
        if (DiskMaster::unmountDiskForFolderFace(face, mount, true, false, &error)) ::rmdir(mount.c_str());
    }
}

} // namespace

size_t MigrationTask::fakeFolderCleanup() {
    size_t deleted = 0;
    if (!FakeImageNote::readNote().empty()) detachLeftoverVolumes();
    for (const std::string& path : FakeImageNote::readNote()) {
        std::error_code ec;
        const bool exists = std::filesystem::exists(std::filesystem::symlink_status(path, ec));
        if (!exists) {
            FakeImageNote::removeImageFromNote(path);
        } else if (isImagePath(path) && DiskMaster::removeImage(path)) {
            ++deleted;
            FakeImageNote::removeImageFromNote(path);
        }
    }
    if (FakeImageNote::readNote().empty()) FakeImageNote::deleteNote();
    return deleted;
}

unsigned MigrationTask::countCores() { return std::max(1u, std::thread::hardware_concurrency()); }

DBMasterRef MigrationTask::master() const { return assistant->master(); }

void MigrationTask::labels(const std::string& title, const std::string& detail) const {
    auto a = assistant;
    performBlockOnMainThread([a, title, detail] { a->setLabels(title, detail); }, false);
}

void MigrationTask::progress(double percent) const {
    auto a = assistant;
    performBlockOnMainThread([a, percent] { a->showMigrationProgress(percent); }, false);
}

bool MigrationTask::cancelOpsIfUserCancelled() {
    const OperationRef self = op();
    if (!self || !self->isCancelled()) return false;
    if (queue_) queue_->cancelAllOperations();
    return true;
}

OperationResult MigrationTask::go(const QVRecordRef&) {
    queue_ = std::make_unique<OperationQueue>();
    queue_->setMaxConcurrentOperationCount(imageWidth > 0 ? imageWidth
                                                          : std::max(4, static_cast<int>(2 * countCores())));
    fakeFolderCleanup();
    if (needsVersion2Migration(master())) return performV2Migration();
    auto a = assistant;
    performBlockOnMainThread([a] { a->migrationEnded(std::nullopt); }, false);
    return std::nullopt;
}

std::optional<QVError> MigrationTask::performV2Migration() {
    progress(0);
    const DBMasterRef db = master();
    const long n = static_cast<long>(db->subDBCount());
    const long target = QVCrypto::randomIntegerBetween(kMinTargetSets, kMaxTargetSets);
    const long toAdd = std::max(1L, target - n);

    std::optional<QVError> error;
    QVError addError;
    if (!addRandomSubDBs(toAdd, &addError)) {
        QV_LOG_ERROR("Migration from v1 -> v2 faild with error: " + addError.description);
        error = addError;
    } else if (cancelOpsIfUserCancelled()) {
        // Nothing was written: the sets added in memory go with the reload.
        error = QVError{QVAppErrorDomain(), QVErrorCancelled, "User canceled size calculation"};
    } else {
        db->setVersion(2);
        QVError saveError;
        if (!db->archiveMasterDBToURL(db->databaseURL(), &saveError)) {
            QV_LOG_ERROR("Migration from v1 -> v2 failed saving the master database: " + saveError.description);
            error = saveError;
        } else {
            // The images are final now: the note must not outlive the file that
            // refers to them, nor look like the remains of a run.
            FakeImageNote::deleteNote();
            progress(100);
        }
    }
    if (error) {
        QV_LOG_ERROR("Migration v1 -> v2: " + error->description);
        fakeFolderCleanup();
    } else {
        QVLogInfo("Migration v1 -> v2 success!");
        FakeImageNote::deleteNote();
    }
    auto a = assistant;
    performBlockOnMainThread([a, error] { a->migrationEnded(error); }, false);
    return error;
}

bool MigrationTask::addRandomSubDBs(long count, QVError* error) {
    const std::vector<uint64_t> sizes = assistant->fakeImageSizes;
    const size_t s = sizes.size();
    const double divisor = double(s) + 2.0 * double(std::max(0L, count));
    const double step = divisor > 0 ? 100.0 / divisor : 0;
    auto done = std::make_shared<std::atomic<double>>(0.0);
    auto advance = [this, done, step] {
        double now = done->load();
        while (!done->compare_exchange_weak(now, now + step)) {
        }
        progress(now + step);
    };

    labels("Filling database with fake Folder Sets...",
           "Folder Sets are isolated containers for encrypted folders, protected by a master password.");

    QVScryptParams params;
    if (!QVCrypto::parametersForFreshContainers(&params)) {
        QVSetAppError(error, QVErrorFailed, "Couldn't measure this computer's speed for the encryption.");
        labels("An error ocurred migrating Database!", "Database migration error!");
        return false;
    }

    const DBMasterRef db = master();
    std::vector<RandomSubdbPlan> plans = DBRandomSubdb::plansForSets(static_cast<size_t>(std::max(0L, count)), s);
    std::vector<RandomSubdb> sets;
    if (!plans.empty() && db->subDBCount() == 0) {
        // A database without sets has no lookup parameters yet: its first set
        // fixes them, the ordinary way, before the others are made side by side.
        if (auto first = DBRandomSubdb::randomSubDB(db, plans.front(), params)) {
            sets.push_back(std::move(*first));
            advance();
        }
        plans.erase(plans.begin());
    }
    const size_t firstParallel = sets.size();
    for (auto& set : DBRandomSubdb::arrayWithRandomSubdbs(db, plans, params, advance, setWidth))
        sets.push_back(std::move(set));

    std::mutex keptMutex;
    std::optional<QVError> kept;
    size_t nextSize = 0;
    for (size_t i = 0; i < sets.size(); ++i) {
        if (cancelOpsIfUserCancelled()) break;
        RandomSubdb& set = sets[i];
        QVError addError;
        const bool added = i < firstParallel ? db->addSubDB(set.subdb, false, &addError)
                                             : db->addPreparedSubDB(set.subdb, set.lookup, set.blob, &addError);
        if (!added) {
            QV_LOG_ERROR("Unexpected Error adding random SubDB: " + addError.description +
                         ". We stop adding more subdbs.");
            queue_->cancelAllOperations();
            break;
        }
        const uint32_t imaged = set.plan.imagedFolders;
        uint32_t folderIndex = 0;
        for (const QVRecordRef& folder : set.subdb->folders()) {
            if (cancelOpsIfUserCancelled()) break;
            if (folderIndex++ >= imaged || nextSize >= s) break;
            QVRecordSetSubdb(folder, set.subdb);
            QVRecordRef face = QVFolderFaceCreate(folder);
            FolderFaceRef{face}.setSubdb(Value(set.subdb));
            auto completion = [this, advance, &keptMutex, &kept](const std::optional<QVError>& taskError, bool) {
                advance();
                if (!taskError) return;
                std::lock_guard lock(keptMutex);
                if (kept) return;
                queue_->cancelAllOperations();
                QV_LOG_ERROR("Error creating a fake Disk Image: " + taskError->description);
                kept = taskError;
            };
            addFolderTask(*queue_,
                          FakeDiskImageTask::taskWithFolderFace(face, double(sizes[nextSize++]), completion, params));
        }
        advance();
    }

    labels(cancelOpsIfUserCancelled() ? "Cancelling migration..." : "Creating fake disk images...", kImagesLine);
    queue_->waitUntilAllOperationsAreFinished();
    // The images are made in the storage's Temp, side by side; once all are
    // done it goes when empty, as after a real folder's creation.
    EncryptFolderTask::removeTempFolder(QVPathByAppendingComponent(defaultDiskImageLocationURL(), "Temp"));

    std::optional<QVError> failure;
    {
        std::lock_guard lock(keptMutex);
        failure = kept;
    }
    if (failure) {
        QVSetAppError(error, QVErrorFailed, "Error creating fake disk images: " + failure->description);
        labels("An error ocurred migrating Database!",
               failure->description.empty() ? "Database migration error!" : failure->description);
        return false;
    }
    if (cancelOpsIfUserCancelled())
        labels("Database migration cancelled!", "Database migration cancelled!");
    else
        labels("Database upgrade complete!", "Enjoy your improved plausible deniability!");
    return true;
}

} // namespace qv
