#include "app/AutoUnlockCount.h"

#include <algorithm>
#include <mutex>

#include "vault/UserDefaults.h"
#include "toolkit/Log.h"

namespace qv {

namespace {

constexpr const char* kNeedsAutounlockKey = "QVNeedsAutounlock";

// Two threads that change the count at once must not lose one of the changes.
std::mutex& countMutex() {
    static std::mutex mutex;
    return mutex;
}

} // namespace

int64_t AutoUnlockCount::increment(int64_t delta) {
    std::lock_guard lock(countMutex());
    QVUserDefaults& defaults = QVUserDefaults::standardUserDefaults();
    const int64_t stored = std::max<int64_t>(0, defaults.integerForKey(kNeedsAutounlockKey));
    const int64_t updated = std::max<int64_t>(0, stored + delta);
    defaults.setObject(kNeedsAutounlockKey, Value(updated));
    if (!defaults.synchronize()) QV_LOG_ERROR("couldn't write the count of folders that unlock at login");
    return updated;
}

int64_t AutoUnlockCount::count() {
    std::lock_guard lock(countMutex());
    return std::max<int64_t>(0, QVUserDefaults::standardUserDefaults().integerForKey(kNeedsAutounlockKey));
}

} // namespace qv
