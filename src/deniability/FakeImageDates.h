#pragma once
// The dates of a fake image, made to look like a bundle that was created some
// time ago and used on and off since: a base date up to 120 days back for the
// bundle's files, a later date for up to a fifth of its bands, and the latest
// of those on the bands directory and the bundle.
//
// Only modification dates can be set here (creation dates can't be set on
// Linux). Where the file system records birth times, nothing is set at all: a
// date earlier than an item's birth can't happen to a real image, a date
// between the birth and now is what the creation left anyway, and setting any
// date stamps the change time, which a real image's files never show apart
// from their modification time.
#include <cstdint>
#include <string>
#include <vector>

namespace qv {

// One item of the bundle (a path relative to it, "" for the bundle itself) and
// its new modification date, in seconds since 1970.
struct FakeDate {
    std::string item;
    double date = 0;
};

// The dates to set, for bands listed in `bands` (in listing order), from the
// base date, the percentage of bands touched later (0 to 20) and `now`. `draw`
// gives a random whole number between its two bounds, both included.
struct FakeDatePlan {
    double base = 0;
    unsigned percentage = 0;
    double now = 0;
};
using FakeDateDraw = uint32_t (*)(uint32_t low, uint32_t high);
std::vector<FakeDate> QVFakeDatesFor(const FakeDatePlan& plan, const std::vector<std::string>& bands,
                                     FakeDateDraw draw);

// Whether the file system holding `path` records birth times (statx reports one).
bool QVBirthTimesRecorded(const std::string& path);

// Forges the dates of the bundle at `imagePath` as above: draws a plan, lists
// "bands" (hidden files skipped), sets each date; failures are ignored. With
// `evenWhereBirthTimesAreRecorded` false (the program's way) nothing is set on a
// file system that records birth times; tests pass true to see the forging.
void QVForgeFakeImageDates(const std::string& imagePath, bool evenWhereBirthTimesAreRecorded = false);

} // namespace qv
