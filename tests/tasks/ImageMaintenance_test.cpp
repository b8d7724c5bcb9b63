// What the image maintenance tasks read out of their helpers' words: the
// capacity in `qv-image resize -limits` (with the records' own factor), the
// space a compaction gave back, the indexing state, and the size the resize
// sheet asks for.
#include <gtest/gtest.h>

#include "disk/StorageLocations.h"
#include "support/TempHome.h"
#include "tasks/CompactFolderTask.h"
#include "tasks/ImageSizeTask.h"
#include "tasks/ResizeFolderTask.h"
#include "tasks/ToggleSpotlightTask.h"
#include "vault/Schemas.h"

namespace qv {
namespace {

TEST(ImageSizeTask, TheCurrentSectorsTimesHalfAThousandFromExactlyThreeFields) {
    // 10 GiB in 512-byte sectors: the records hold 500 bytes a sector.
    EXPECT_EQ(ImageSizeTask::capacityFromLimits("32768\t20971520\t34359738360\n"), 10485760000u);
    EXPECT_EQ(ImageSizeTask::capacityFromLimits("1\t3\t5"), 1500u);
    EXPECT_EQ(ImageSizeTask::capacityFromLimits("1\t1\t1"), 500u);
    // Anything but three fields gives no capacity at all, and nothing changes.
    EXPECT_EQ(ImageSizeTask::capacityFromLimits("32768\t20971520\n"), std::nullopt);
    EXPECT_EQ(ImageSizeTask::capacityFromLimits("1\t2\t3\t4\n"), std::nullopt);
    EXPECT_EQ(ImageSizeTask::capacityFromLimits(""), std::nullopt);
    // A middle field that is no number reads as none.
    EXPECT_EQ(ImageSizeTask::capacityFromLimits("1\tmany\t3"), 0u);
    EXPECT_EQ(ImageSizeTask::capacityFromLimits("1\t-8\t3"), 0u);
}

TEST(CompactFolderTask, ClaimedSpaceIsTheWordsBetweenReclaimedAndOutOf) {
    EXPECT_EQ(CompactFolderTask::claimedSpace("Reclaimed 90.3 MiB out of 9.7 GiB possible.\n"), "90.3 MiB");
    EXPECT_EQ(CompactFolderTask::claimedSpace("RECLAIMED 0 bytes OUT OF 1.0 GiB possible."), "0 bytes")
        << "found in any case, given back as it was written";
    EXPECT_EQ(CompactFolderTask::claimedSpace("Freed 90.3 MiB out of 9.7 GiB possible."), "");
    EXPECT_EQ(CompactFolderTask::claimedSpace("Reclaimed 90.3 MiB of 9.7 GiB."), "");
    EXPECT_EQ(CompactFolderTask::claimedSpace(" out of reclaimed "), "") << "the end before the start";
}

TEST(ToggleSpotlightTask, DisabledUnlessTheStateSaysEnabled) {
    EXPECT_FALSE(ToggleSpotlightTask::isDisabled("/mnt/x:\n\tIndexing enabled.\n"));
    EXPECT_FALSE(ToggleSpotlightTask::isDisabled("ENABLED"));
    EXPECT_TRUE(ToggleSpotlightTask::isDisabled("/mnt/x:\n\tIndexing disabled.\n"));
    EXPECT_TRUE(ToggleSpotlightTask::isDisabled(""));
    EXPECT_TRUE(ToggleSpotlightTask::isDisabled("qv-index: /mnt/x: not the root of a mounted volume"));
}

TEST(ResizeFolderTask, TheSheetAddsTheIncreaseToTheRecordedCapacity) {
    test::TempHome home;
    QVRecordRef folder = QVFolderCreate(QVStorageDefault(), URLValue{home.root() + "/F"});
    EXPECT_EQ(ResizeFolderTask::sizeForIncrease(folder, 4096), 4096u) << "no DiskInfo: the increase alone";
    QVRecordRef diskinfo = QVDiskInfoForFolder(folder);
    FolderRef{folder}.setDiskinfo(Value(diskinfo));
    DiskInfoRef{diskinfo}.setCapacity(Value(int64_t{10485760000}));
    EXPECT_EQ(ResizeFolderTask::sizeForIncrease(folder, 10989056000u), 21474816000u);
}

} // namespace
} // namespace qv
