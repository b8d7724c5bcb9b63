#pragma once
// The logic of the page where the user decides how much disk the fake images
// may take: a slider over the free space of the home volume (at most 10 GiB of
// it), a menu of three distributions of image sizes, and the random list of
// image sizes that the pie chart shows and the upgrade makes. The list is drawn
// afresh at each change and is final only when the page is left.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace qv {

class PDAssistantSetup {
public:
    // One entry of a distribution: a roll of 0 to 99 within [location,
    // location + length) gives images of this size class (0 small, 1 medium,
    // 2 large).
    struct Entry {
        unsigned folderType;
        unsigned location;
        unsigned length;
    };
    using Distribution = std::vector<Entry>;
    // In the menu's order: "Random Distribution", "Prefer lots of small disk
    // images", "Prefer a few large disk images".
    enum Menu : int { RandomDistribution = 0, LotsOfSmallImages = 1, FewLargeImages = 2 };
    static const std::vector<Distribution>& distributions();
    static const std::vector<std::string>& menuTitles();
    // The chart's colours, in order (one stands twice).
    static const std::vector<std::string>& colors();

    static constexpr const char* noSpaceString = "No space will be used.";
    static constexpr const char* areYouSureTitle = "Are you sure?";
    static constexpr const char* areYouSureText =
        "Having fake disk images protects not only your plausible deniability, but the plausible deniability of "
        "others as well. Dedicating some hard disk space is recommended for everyone.";
    // Every image takes this much beyond its content.
    static constexpr uint64_t kImageOverhead = 83886080;       // 80 MiB
    static constexpr uint64_t kSpaceCap = 10737418240ULL;      // 10 GiB
    static constexpr uint64_t kInitialUsageCap = 524288000;    // 500 MiB
    static constexpr uint64_t kRandomNeedsAtLeast = 629145600; // 600 MiB
    static constexpr size_t kMaxImages = 10;

    // A random whole number between the two bounds, both included, either order.
    using Draw = std::function<uint32_t(uint32_t, uint32_t)>;
    PDAssistantSetup();

    // The slider's full travel, the step labels and the initial value from the
    // free bytes of the home volume (read here, or given).
    void setInitialSliderValue();
    void setInitialSliderValue(uint64_t freeBytes);
    // Puts the slider where it stands for `bytes` (at most its full travel).
    void setDiskUsage(uint64_t bytes);
    uint64_t diskUsage() const;

    // One image's full size in bytes (content plus 80 MiB) drawn from `distribution`.
    // The bounds are computed in unsigned 32-bit arithmetic and wrap below 80 MiB
    // on purpose: with little space a draw is far larger than what is left, and
    // updateDistribution cuts it to all that is left.
    uint64_t imageSizeForDistribution(const Distribution& distribution) const;
    // Draws the list of content sizes afresh and the summary text; `redraw`
    // also rebuilds the chart's data.
    void updateDistribution(bool redraw);

    struct ChartEntry {
        uint64_t mib;      // the image's full size in MiB
        std::string color; // "RRGGBB"
    };
    const std::vector<ChartEntry>& chart() const { return chart_; }
    // The chart page's two script calls.
    std::string localizeScript() const;
    std::string updatePieScript() const;

    // Leaving the page: true when the user must first confirm that no space is
    // to be used ("Are you sure?"). The list stands as it is.
    bool needsConfirmationToGoOn() const { return diskUsage() == 0; }

    uint64_t availableSpace = 0;
    double sliderValue = 0; // 0 to 1
    int selectedMenuItem = RandomDistribution;
    std::string labelStep[4];
    std::vector<uint64_t> folders; // content sizes of the planned images
    std::string summaryText;
    Draw draw;

private:
    std::vector<ChartEntry> chart_;
};

} // namespace qv
