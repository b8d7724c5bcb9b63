#pragma once
// Fake Folder Sets: each has folders, passwords and (some of them) images like
// a real set, and its password is forgotten with the object, so that nobody can
// ever open it. They fill every database, so that the number of entries in the
// master file says nothing about how many sets are real.
//
// Sets are made side by side on a pool of threads of their own: each costs a
// few scrypt derivations (its lookup key, its folders' password containers,
// its blob), all under parameters measured once beforehand, so that a set made
// on a busy machine carries the same parameters as one saved alone.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "vault/DBMaster.h"
#include "vault/ScryptParams.h"

namespace qv {

// How one fake set is to be made: its number of folders (2 to 10), and how many
// of its first folders get an image. Each of those has a password container of
// its own, since a real image's `diskinfo` shows a container no other image
// has; the other folders share one.
struct RandomSubdbPlan {
    uint32_t folders = 0;
    uint32_t imagedFolders = 0;
};

// A fake set ready to be stored: the set, its lookup key, its blob, and the plan it was made by.
struct RandomSubdb {
    DBSubdbRef subdb;
    Bytes lookup;
    Bytes blob;
    RandomSubdbPlan plan;
};

class DBRandomSubdb {
public:
    DBRandomSubdb() = delete;

    static constexpr uint32_t kMinFolders = 2;
    static constexpr uint32_t kMaxFolders = 10;
    static constexpr uint32_t kMinPasswordLength = 30;
    static constexpr uint32_t kMaxPasswordLength = 40;
    // The size a fake folder's record claims.
    static constexpr int64_t kFakeFolderSize = 120000;

    // A path in the documents directory named by 4 to 30 random characters with
    // codes 65 to 122. Nothing is created there, and an existing path is not
    // avoided: the path appears only inside the encrypted set.
    static std::string randomFolderURL();

    // Plans for `count` sets: folder counts drawn from 2 to 10, and `images`
    // images handed out in order to the first folders of each set until none
    // are left.
    static std::vector<RandomSubdbPlan> plansForSets(size_t count, size_t images);

    // The folders of a fake set whose password is `masterPass`: each in the
    // default storage at a random path, encrypted, its `position` its index, its
    // image password (30 to 40 characters) encrypted with `masterPass`; the first
    // `ownContainers` folders each have their own, the others share one.
    static std::vector<QVRecordRef> randomFolders(uint32_t count, const std::string& masterPass, uint32_t ownContainers,
                                                  const QVScryptParams& params);

    // One fake set made by the plan, with a random password of 30 to 40
    // characters that no set of `master` has. Its lookup key stays empty when
    // the database has no parameters yet (the caller then adds it the ordinary
    // way). Nothing (logged) when a derivation fails.
    static std::optional<RandomSubdb> randomSubDB(const DBMasterRef& master, const RandomSubdbPlan& plan,
                                                  const QVScryptParams& params);

    // The sets of all plans, made `width` at a time (0: one per processor core).
    // After each, the result is appended and `progress` is called, both one at a
    // time; a set that failed is skipped without a call. The result is in plan
    // order, failed ones left out.
    static std::vector<RandomSubdb> arrayWithRandomSubdbs(const DBMasterRef& master,
                                                          const std::vector<RandomSubdbPlan>& plans,
                                                          const QVScryptParams& params,
                                                          const std::function<void()>& progress, unsigned width = 0);
};

} // namespace qv
