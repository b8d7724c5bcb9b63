// The note of fake images in the making, and the dates a fake image is given:
// the note survives tasks that change it side by side and reads a missing or
// damaged file as empty; the forged dates follow their rules, and nothing is
// forged where the file system records birth times.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <thread>

#include "deniability/FakeImageDates.h"
#include "deniability/FakeImageNote.h"
#include "support/TempHome.h"
#include "vault/Locations.h"

namespace fs = std::filesystem;
using namespace qv;

namespace {

double mtimeOf(const std::string& path) {
    struct stat st {};
    ::lstat(path.c_str(), &st);
    return double(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec * 1e-9;
}

void touch(const std::string& path) { std::ofstream(path) << "x"; }

// The bundle's items as the forging sees them, with `bands` band files.
std::string makeBundle(const std::string& root, int bands) {
    const std::string bundle = root + "/X.sparsebundle";
    fs::create_directories(bundle + "/bands");
    for (const char* f : {"Info.plist", "Info.bckup", "token", "diskinfo"}) touch(bundle + "/" + f);
    for (int i = 0; i < bands; ++i) touch(bundle + "/bands/" + std::to_string(i));
    touch(bundle + "/bands/.hidden-not-a-band");
    return bundle;
}

} // namespace

TEST(FakeImageNote, AMissingOrDamagedNoteIsEmptyAndTasksSideBySideLoseNoEntry) {
    test::TempHome home;
    EXPECT_TRUE(FakeImageNote::readNote().empty());
    std::ofstream(fakeImagesNoteURL()) << "not a property list";
    EXPECT_TRUE(FakeImageNote::readNote().empty());

    std::vector<std::thread> tasks;
    for (int t = 0; t < 8; ++t)
        tasks.emplace_back([t] {
            for (int i = 0; i < 25; ++i) FakeImageNote::addImageToNote("/img/" + std::to_string(t * 100 + i));
        });
    for (auto& task : tasks) task.join();
    auto paths = FakeImageNote::readNote();
    EXPECT_EQ(paths.size(), 200u);
    std::sort(paths.begin(), paths.end());
    EXPECT_EQ(std::unique(paths.begin(), paths.end()), paths.end());

    FakeImageNote::addImageToNote("/img/0");
    FakeImageNote::removeImageFromNote("/img/0");
    EXPECT_EQ(FakeImageNote::readNote().size(), 199u) << "every occurrence goes";
    FakeImageNote::deleteNote();
    EXPECT_FALSE(fs::exists(fakeImagesNoteURL()));
    FakeImageNote::deleteNote(); // a second time is no failure
}

TEST(FakeImageDates, PlansKeepTheBaseForUntouchedBandsAndShowTheLatestChangeOnTheDirectories) {
    const std::vector<std::string> bands{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"};
    auto highest = [](uint32_t, uint32_t high) { return high; };
    auto dateOf = [](const std::vector<FakeDate>& dates, const std::string& item) {
        for (const auto& d : dates)
            if (d.item == item) return d.date;
        return -1.0;
    };

    // No band touched later: everything, the directories too, shows the base date.
    auto none = QVFakeDatesFor({.base = 1000, .percentage = 0, .now = 5000}, bands, highest);
    for (const auto& d : none) EXPECT_EQ(d.date, 1000) << d.item;
    EXPECT_EQ(none.size(), 3 + bands.size() + 3);

    // A fifth of ten bands: the first two, in listing order, changed later.
    auto some = QVFakeDatesFor({.base = 1000, .percentage = 20, .now = 5000}, bands, highest);
    EXPECT_EQ(dateOf(some, "bands/0"), 5000);
    EXPECT_EQ(dateOf(some, "bands/1"), 5000);
    EXPECT_EQ(dateOf(some, "bands/2"), 1000);
    EXPECT_EQ(dateOf(some, "bands"), 5000);
    EXPECT_EQ(dateOf(some, ""), 5000);
    EXPECT_EQ(dateOf(some, "token"), 1000);
    EXPECT_EQ(dateOf(some, "diskinfo"), 5000) << "between the base and the latest change";
    auto one = QVFakeDatesFor({.base = 1000, .percentage = 19, .now = 5000}, bands, highest);
    EXPECT_EQ(dateOf(one, "bands/0"), 5000);
    EXPECT_EQ(dateOf(one, "bands/1"), 1000) << "ten bands at 19% is one band";

    auto empty = QVFakeDatesFor({.base = 1000, .percentage = 20, .now = 5000}, {}, highest);
    EXPECT_EQ(dateOf(empty, "bands"), 1000);
}

TEST(FakeImageDates, ForgedOnDiskOnlyWhereBirthTimesAreNotRecorded) {
    test::TempHome home;
    const std::string bundle = makeBundle(home.root(), 12);
    const double before = mtimeOf(bundle + "/token");
    const double hidden = mtimeOf(bundle + "/bands/.hidden-not-a-band");
    if (QVBirthTimesRecorded(bundle)) {
        QVForgeFakeImageDates(bundle);
        EXPECT_EQ(mtimeOf(bundle + "/token"), before) << "nothing earlier than an item's birth";
        EXPECT_GE(mtimeOf(bundle + "/Info.plist"), mtimeOf(bundle) - 5);
    }
    QVForgeFakeImageDates(bundle, true);
    const double base = mtimeOf(bundle + "/token");
    EXPECT_LE(base, before);
    EXPECT_GE(base, before - 121 * 86400.0);
    EXPECT_EQ(mtimeOf(bundle + "/Info.plist"), base);
    EXPECT_EQ(mtimeOf(bundle + "/Info.bckup"), base);
    double latest = base;
    int later = 0;
    for (int i = 0; i < 12; ++i) {
        const double band = mtimeOf(bundle + "/bands/" + std::to_string(i));
        EXPECT_GE(band, base);
        latest = std::max(latest, band);
        later += band > base;
    }
    EXPECT_LE(later, 2) << "at most a fifth of the bands";
    EXPECT_EQ(mtimeOf(bundle + "/bands"), latest);
    EXPECT_EQ(mtimeOf(bundle), latest);
    EXPECT_GE(mtimeOf(bundle + "/diskinfo"), base);
    EXPECT_LE(mtimeOf(bundle + "/diskinfo"), latest);
    EXPECT_EQ(mtimeOf(bundle + "/bands/.hidden-not-a-band"), hidden) << "hidden files are no bands";
}
