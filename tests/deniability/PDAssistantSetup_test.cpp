// How the setup page sizes the fake images: the slider's travel and labels from
// the free space, the distributions and their switch below 600 MiB, the
// wrap-around that cuts a first draw to all that is left, the ten-image stop,
// and what the summary and the chart say.
#include <gtest/gtest.h>

#include <deque>

#include "deniability/PDAssistantSetup.h"

using namespace qv;

namespace {

constexpr uint64_t MiB = 1048576;
constexpr uint64_t GiB = 1024 * MiB;

// Draws that answer the roll with `roll` and every size draw with its lower
// bound, recording the bounds they were asked for.
struct ScriptedDraw {
    uint32_t roll;
    std::shared_ptr<std::deque<std::pair<uint32_t, uint32_t>>> asked =
        std::make_shared<std::deque<std::pair<uint32_t, uint32_t>>>();
    uint32_t operator()(uint32_t a, uint32_t b) const {
        if (a == 0 && b == 99) return roll;
        asked->emplace_back(a, b);
        return std::min(a, b);
    }
};

PDAssistantSetup withUsage(uint64_t available, uint64_t usage) {
    PDAssistantSetup setup;
    setup.availableSpace = available;
    setup.setDiskUsage(usage);
    return setup;
}

} // namespace

TEST(PDAssistantSetup, TheSliderCoversAtMostTenGibibytesAndStartsAtFiveHundredMebibytes) {
    PDAssistantSetup big;
    big.setInitialSliderValue(100 * GiB);
    EXPECT_EQ(big.availableSpace, 10 * GiB);
    EXPECT_EQ(std::vector<std::string>(big.labelStep, big.labelStep + 4),
              (std::vector<std::string>{"3%", "6%", "9%", "12%"}))
        << "a step of 2.5 rounds away from zero";
    EXPECT_NEAR(double(big.diskUsage()), double(500 * MiB), 1.0);

    PDAssistantSetup some;
    some.setInitialSliderValue(20 * GiB);
    EXPECT_EQ(some.availableSpace, 20 * GiB) << "all free space below 50 GiB, though the labels say 5% to 20%";
    EXPECT_EQ(some.labelStep[3], "20%");
    EXPECT_NEAR(double(some.diskUsage()), double(500 * MiB), 1.0);

    PDAssistantSetup little;
    little.setInitialSliderValue(2 * GiB);
    EXPECT_EQ(little.sliderValue, 0.05);

    PDAssistantSetup exact = withUsage(10 * GiB, 600 * MiB + 1);
    EXPECT_EQ(exact.diskUsage(), 600 * MiB + 1);
    EXPECT_EQ(withUsage(10 * GiB, 20 * GiB).diskUsage(), 10 * GiB) << "the slider's end";
}

TEST(PDAssistantSetup, NoSpaceOrTooLittleForOneImageMeansNoImages) {
    for (uint64_t usage : {uint64_t(0), 80 * MiB - 1}) {
        PDAssistantSetup setup = withUsage(10 * GiB, usage);
        setup.updateDistribution(true);
        EXPECT_TRUE(setup.folders.empty()) << usage;
        EXPECT_EQ(setup.summaryText, "No space will be used.");
        EXPECT_TRUE(setup.chart().empty());
        EXPECT_EQ(setup.updatePieScript(), "updatePie( [] );");
        EXPECT_EQ(setup.needsConfirmationToGoOn(), usage == 0);
    }
}

TEST(PDAssistantSetup, BelowSixHundredMebibytesRandomTakesTheSmallImagesTable) {
    // A roll of 20 is class 2 (large) in "Random Distribution", class 1 (medium)
    // in "Prefer lots of small disk images". With 500 MiB the bounds are 40, 100, 1000.
    ScriptedDraw draw{20};
    PDAssistantSetup below = withUsage(10 * GiB, 500 * MiB);
    below.draw = draw;
    below.imageSizeForDistribution(PDAssistantSetup::distributions()[1]);
    EXPECT_EQ(draw.asked->back(), std::make_pair(40u, 100u));
    below.updateDistribution(false);
    EXPECT_EQ(draw.asked->back(), std::make_pair(40u, 100u)) << "the first menu item switched to the second";

    ScriptedDraw large{20};
    PDAssistantSetup above = withUsage(10 * GiB, 600 * MiB);
    above.draw = large;
    above.updateDistribution(false);
    EXPECT_EQ(large.asked->front(), std::make_pair(100u, 1000u)) << "600 MiB keeps the random table";
}

TEST(PDAssistantSetup, WithLittleSpaceTheBoundsWrapAndTheFirstImageTakesAllThatIsLeft) {
    PDAssistantSetup setup = withUsage(10 * GiB, 300 * MiB);
    // 300 / 6 - 80 and 300 / 4 - 80 wrap to bounds near 2^32.
    ScriptedDraw draw{99};
    setup.draw = draw;
    setup.imageSizeForDistribution(PDAssistantSetup::distributions()[1]);
    EXPECT_EQ(draw.asked->back(), std::make_pair(0u, uint32_t(50u - 80u)));

    PDAssistantSetup real = withUsage(10 * GiB, 300 * MiB);
    real.updateDistribution(true);
    EXPECT_EQ(real.folders, std::vector<uint64_t>{220 * MiB});
    EXPECT_EQ(real.summaryText, "Approximately 314.6 MB will be used to create 1 disk image");
    ASSERT_EQ(real.chart().size(), 1u);
    EXPECT_EQ(real.chart()[0].mib, 300u) << "the chart shows the image's full size";
}

TEST(PDAssistantSetup, AtMostTenImagesAndTheChartCyclesItsSixColours) {
    PDAssistantSetup setup = withUsage(10 * GiB, 10 * GiB);
    setup.draw = ScriptedDraw{99}; // every image the smallest: 80 MiB, content 0
    setup.updateDistribution(true);
    EXPECT_EQ(setup.folders, std::vector<uint64_t>(10, 0)) << "the rest of the space stays unused";
    ASSERT_EQ(setup.chart().size(), 10u);
    const std::vector<std::string> colours{"1466BF", "0D447F", "1A88FF", "072240", "072240", "0F297F"};
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(setup.chart()[i].color, colours[i % 6]);
        EXPECT_EQ(setup.chart()[i].mib, 80u);
    }
    EXPECT_EQ(setup.localizeScript(), "localize({empty:\"No space will be used.\"});");

    PDAssistantSetup two = withUsage(10 * GiB, 10 * GiB);
    // Large images at their top: 10240 / 2 - 80 MiB of content, 5120 MiB in all, twice.
    two.draw = [](uint32_t a, uint32_t b) { return a == 0 && b == 99 ? 0u : std::max(a, b); };
    two.updateDistribution(true);
    ASSERT_EQ(two.folders.size(), 2u);
    EXPECT_EQ(two.updatePieScript(), "updatePie( [{value:5120,color:\"#1466BF\"},{value:5120,color:\"#0D447F\"}] );");
}
