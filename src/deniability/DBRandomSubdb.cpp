#include "deniability/DBRandomSubdb.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "disk/StorageLocations.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"
#include "vault/Locations.h"
#include "vault/QVCrypto.h"
#include "vault/Schemas.h"

namespace qv {

namespace {

// A password container of a new random image password under the set's password.
std::optional<Bytes> newImagePasswordContainer(const std::string& masterPass, const QVScryptParams& params) {
    const uint32_t length =
        QVCrypto::randomIntegerBetween(DBRandomSubdb::kMinPasswordLength, DBRandomSubdb::kMaxPasswordLength);
    std::string password = QVCrypto::randomPasswordOfLength(length);
    auto container = QVCrypto::encryptString(password, masterPass, params);
    QVWipe(password);
    return container;
}

} // namespace

std::string DBRandomSubdb::randomFolderURL() {
    const std::string name = QVCrypto::randomStringOfLength(QVCrypto::randomIntegerBetween(4, 30), 65, 122);
    const std::string documents = documentsURL();
    return documents.empty() ? name : QVPathByAppendingComponent(documents, name);
}

std::vector<RandomSubdbPlan> DBRandomSubdb::plansForSets(size_t count, size_t images) {
    std::vector<RandomSubdbPlan> plans(count);
    for (auto& plan : plans) {
        plan.folders = QVCrypto::randomIntegerBetween(kMinFolders, kMaxFolders);
        const uint32_t imaged = static_cast<uint32_t>(std::min<size_t>(images, plan.folders));
        plan.imagedFolders = imaged;
        images -= imaged;
    }
    return plans;
}

std::vector<QVRecordRef> DBRandomSubdb::randomFolders(uint32_t count, const std::string& masterPass,
                                                      uint32_t ownContainers, const QVScryptParams& params) {
    std::vector<QVRecordRef> folders;
    std::optional<Bytes> shared;
    if (ownContainers < count) {
        shared = newImagePasswordContainer(masterPass, params);
        if (!shared) return {};
    }
    for (uint32_t i = 0; i < count; ++i) {
        std::optional<Bytes> container = i < ownContainers ? newImagePasswordContainer(masterPass, params) : shared;
        if (!container) return {};
        QVRecordRef folder = QVFolderCreate(QVStorageDefault(), URLValue{randomFolderURL()});
        FolderRef f{folder};
        f.setEncrypted(Value(true));
        f.setFolderSize(Value(kFakeFolderSize));
        f.setPosition(Value(static_cast<int64_t>(i)));
        f.setPassword(Value(*container));
        f.setDiskinfo(Value(QVDiskInfoForFolder(folder)));
        folders.push_back(folder);
    }
    return folders;
}

std::optional<RandomSubdb> DBRandomSubdb::randomSubDB(const DBMasterRef& master, const RandomSubdbPlan& plan,
                                                      const QVScryptParams& params) {
    const bool hasParameters = master->subDBCount() > 0;
    RandomSubdb made;
    made.plan = plan;
    std::string password;
    QVWipeOnExit wipe(password);
    for (;;) {
        QVWipe(password);
        password =
            QVCrypto::randomPasswordOfLength(QVCrypto::randomIntegerBetween(kMinPasswordLength, kMaxPasswordLength));
        if (!hasParameters) break;
        QVError error;
        auto lookup = master->lookupKeyForPassword(password, &error);
        if (!lookup) {
            QV_LOG_ERROR("couldn't compute a lookup key: " + error.description);
            return std::nullopt;
        }
        if (!master->containsLookupKey(*lookup)) {
            made.lookup = std::move(*lookup);
            break;
        }
    }
    auto folders = randomFolders(plan.folders, password, plan.imagedFolders, params);
    if (folders.empty()) return std::nullopt;
    made.subdb = DBSubdb::subdbWithFolders(folders, password);
    QVError error;
    auto blob = DBMaster::dataFromSubdb(made.subdb, password, &params, &error);
    if (!blob) {
        QV_LOG_ERROR("couldn't make a Folder Set's blob: " + error.description);
        return std::nullopt;
    }
    made.blob = std::move(*blob);
    return made;
}

std::vector<RandomSubdb> DBRandomSubdb::arrayWithRandomSubdbs(const DBMasterRef& master,
                                                              const std::vector<RandomSubdbPlan>& plans,
                                                              const QVScryptParams& params,
                                                              const std::function<void()>& progress, unsigned width) {
    if (width == 0) width = std::max(1u, std::thread::hardware_concurrency());
    width = std::min<unsigned>(width, static_cast<unsigned>(std::max<size_t>(plans.size(), 1)));
    std::mutex sync; // the array and the callback, one at a time
    std::map<size_t, RandomSubdb> made;
    std::atomic<size_t> next{0};
    auto worker = [&] {
        for (size_t i; (i = next.fetch_add(1)) < plans.size();) {
            auto set = randomSubDB(master, plans[i], params);
            if (!set) continue;
            std::lock_guard lock(sync);
            made.emplace(i, std::move(*set));
            if (progress) progress();
        }
    };
    std::vector<std::thread> pool;
    for (unsigned t = 1; t < width; ++t) pool.emplace_back(worker);
    worker();
    for (auto& thread : pool) thread.join();
    std::vector<RandomSubdb> result;
    for (auto& [index, set] : made) result.push_back(std::move(set));
    return result;
}

} // namespace qv
