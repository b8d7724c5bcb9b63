#include "deniability/PDAssistantSetup.h"

#include <cmath>
#include <cstdlib>

#include "disk/FolderSanity.h"
#include "disk/StorageLocations.h"
#include "toolkit/HumanReadable.h"
#include "toolkit/Log.h"
#include "vault/QVCrypto.h"

namespace qv {

PDAssistantSetup::PDAssistantSetup()
    : draw([](uint32_t a, uint32_t b) { return QVCrypto::randomIntegerBetween(a, b); }) {}

const std::vector<PDAssistantSetup::Distribution>& PDAssistantSetup::distributions() {
    static const std::vector<Distribution> table{
        {{2, 0, 30}, {1, 30, 30}, {0, 60, 40}},
        {{2, 0, 10}, {1, 10, 20}, {0, 30, 70}},
        {{2, 0, 40}, {1, 40, 40}, {0, 80, 20}},
    };
    return table;
}

const std::vector<std::string>& PDAssistantSetup::menuTitles() {
    static const std::vector<std::string> titles{"Random Distribution", "Prefer lots of small disk images",
                                                 "Prefer a few large disk images"};
    return titles;
}

const std::vector<std::string>& PDAssistantSetup::colors() {
    static const std::vector<std::string> list{"1466BF", "0D447F", "1A88FF", "072240", "072240", "0F297F"};
    return list;
}

void PDAssistantSetup::setInitialSliderValue() {
    const char* home = std::getenv("HOME");
    const int64_t free = QVStorageAvailableBytes(QVStorageMake("home", URLValue{home && *home ? home : "/"}));
    setInitialSliderValue(free > 0 ? uint64_t(free) : 0);
}

void PDAssistantSetup::setInitialSliderValue(uint64_t freeBytes) {
    availableSpace = freeBytes;
    double step = 5;
    // Past 50 GiB free the slider stops at 10 GiB, and the labels say what
    // share of the free space that is. Below, the slider covers all free space
    // while the labels still read 5% to 20%.
    if (static_cast<uint64_t>(double(freeBytes) * 0.2) > kSpaceCap) {
        const double percent = double(kSpaceCap) / double(freeBytes) * 100;
        availableSpace = kSpaceCap;
        step = percent / 4;
    }
    step = std::round(step);
    for (int i = 0; i < 4; ++i) labelStep[i] = QVFormat("%.0f%%", step * (i + 1));
    sliderValue = 0.05;
    if (static_cast<uint64_t>(double(availableSpace) * 0.05) > kInitialUsageCap)
        sliderValue = double(kInitialUsageCap) / double(availableSpace);
}

void PDAssistantSetup::setDiskUsage(uint64_t bytes) {
    if (availableSpace == 0 || bytes >= availableSpace) {
        sliderValue = availableSpace == 0 ? 0 : 1;
        return;
    }
    sliderValue = double(bytes) / double(availableSpace);
    // The slider's value is a fraction: make sure it stands for at least the
    // whole bytes asked for, not one less.
    while (diskUsage() < bytes) sliderValue = std::nextafter(sliderValue, 2.0);
}

uint64_t PDAssistantSetup::diskUsage() const { return static_cast<uint64_t>(double(availableSpace) * sliderValue); }

uint64_t PDAssistantSetup::imageSizeForDistribution(const Distribution& distribution) const {
    const uint32_t roll = draw(0, 99);
    unsigned type = 0;
    for (const Entry& e : distribution)
        if (roll >= e.location && roll < e.location + e.length) {
            type = e.folderType;
            break;
        }
    const uint32_t d = static_cast<uint32_t>(diskUsage() >> 20);
    const uint32_t a = d / 6, b = d / 4, c = d / 2;
    // Unsigned on purpose: below 80 the subtraction wraps to a bound near 2^32.
    const uint32_t small = std::max<uint32_t>(a - 80u, 40u);
    const uint32_t middle = std::max<uint32_t>(b - 80u, 100u);
    const uint32_t large = std::max<uint32_t>(c - 80u, 1000u);
    uint32_t mib = 0;
    switch (type) {
    case 0:
        mib = draw(0, small);
        break;
    case 1:
        mib = draw(small, middle);
        break;
    default:
        mib = draw(middle, large);
        break;
    }
    return (uint64_t(mib) << 20) + kImageOverhead;
}

void PDAssistantSetup::updateDistribution(bool redraw) {
    const uint64_t usage = diskUsage();
    folders.clear();
    if (usage == 0) {
        summaryText = noSpaceString;
    } else {
        int index = selectedMenuItem >= 0 && selectedMenuItem < 3 ? selectedMenuItem : RandomDistribution;
        if (index == RandomDistribution && usage < kRandomNeedsAtLeast) index = LotsOfSmallImages;
        const Distribution& distribution = distributions()[size_t(index)];
        uint64_t remainder = usage;
        while (folders.size() < kMaxImages) {
            const uint64_t size = std::min(imageSizeForDistribution(distribution), remainder);
            if (size < kImageOverhead) break;
            folders.push_back(size - kImageOverhead);
            remainder -= size;
            if (remainder == 0) break;
        }
        summaryText = folders.empty() ? std::string(noSpaceString)
                                      : QVFormat("Approximately %s will be used to create %lu %s",
                                                 bytesToHumanReadableString(usage).c_str(),
                                                 static_cast<unsigned long>(folders.size()),
                                                 folders.size() == 1 ? "disk image" : "disk images");
    }
    if (!redraw) return;
    chart_.clear();
    for (size_t i = 0; i < folders.size(); ++i)
        chart_.push_back({(folders[i] + kImageOverhead) >> 20, colors()[i % colors().size()]});
}

std::string PDAssistantSetup::localizeScript() const { return QVFormat("localize({empty:\"%s\"});", noSpaceString); }

std::string PDAssistantSetup::updatePieScript() const {
    std::string script = "updatePie( [";
    for (size_t i = 0; i < chart_.size(); ++i) {
        script += QVFormat("{value:%ld,color:\"#%s\"}", static_cast<long>(chart_[i].mib), chart_[i].color.c_str());
        if (i + 1 < chart_.size()) script += ",";
    }
    return script + "] );";
}

} // namespace qv
