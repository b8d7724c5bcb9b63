#include "deniability/FakeImageDates.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>

#include "vault/QVCrypto.h"

namespace qv {

namespace {

constexpr double kDay = 86400;
constexpr uint32_t kMaxBaseDays = 120;
constexpr uint32_t kMaxTouchedPercentage = 20;

double nowSince1970() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

// `from` plus a whole number of seconds between 0 and the distance to `to`.
double dateBetween(double from, double to, FakeDateDraw draw) {
    const double span = std::max(0.0, std::trunc(to - from));
    return from + draw(0, static_cast<uint32_t>(std::min(span, double(UINT32_MAX))));
}

// The modification date only; the access date is left as it is.
void setModificationDate(const std::string& path, double date) {
    struct timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(std::floor(date));
    times[1].tv_nsec = static_cast<long>((date - std::floor(date)) * 1e9);
    ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

uint32_t drawRandom(uint32_t low, uint32_t high) { return QVCrypto::randomIntegerBetween(low, high); }

} // namespace

std::vector<FakeDate> QVFakeDatesFor(const FakeDatePlan& plan, const std::vector<std::string>& bands,
                                     FakeDateDraw draw) {
    std::vector<FakeDate> dates;
    for (const char* file : {"Info.bckup", "token", "Info.plist"}) dates.push_back({file, plan.base});
    const size_t touched = bands.size() * std::min(plan.percentage, kMaxTouchedPercentage) / 100;
    double latest = plan.base;
    for (size_t i = 0; i < bands.size(); ++i) {
        const double date = i < touched ? dateBetween(plan.base, plan.now, draw) : plan.base;
        latest = std::max(latest, date);
        dates.push_back({"bands/" + bands[i], date});
    }
    dates.push_back({"diskinfo", dateBetween(plan.base, latest, draw)});
    dates.push_back({"bands", latest});
    dates.push_back({"", latest});
    return dates;
}

bool QVBirthTimesRecorded(const std::string& path) {
    struct statx st {};
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &st) != 0) return false;
    return (st.stx_mask & STATX_BTIME) != 0;
}

void QVForgeFakeImageDates(const std::string& imagePath, bool evenWhereBirthTimesAreRecorded) {
    if (!evenWhereBirthTimesAreRecorded && QVBirthTimesRecorded(imagePath)) return;
    FakeDatePlan plan;
    plan.now = nowSince1970();
    plan.base = plan.now - kDay * QVCrypto::randomIntegerBetween(0, kMaxBaseDays);
    plan.percentage = QVCrypto::randomIntegerBetween(0, kMaxTouchedPercentage);
    std::vector<std::string> bands;
    std::error_code ec;
    for (std::filesystem::directory_iterator it(imagePath + "/bands", ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (!name.empty() && name[0] != '.') bands.push_back(name);
    }
    for (const FakeDate& d : QVFakeDatesFor(plan, bands, drawRandom))
        setModificationDate(d.item.empty() ? imagePath : imagePath + "/" + d.item, d.date);
}

} // namespace qv
