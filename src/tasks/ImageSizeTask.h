#pragma once
// Reads the capacity of a folder's image (`qv-image resize -limits`) into its
// DiskInfo, and writes the image's diskinfo file again with it. Works on a
// folder in any state.
#include <cstdint>
#include <optional>
#include <string>

#include "tasks/BaseFolderTask.h"

namespace qv {

class ImageSizeTask : public FolderTask<ImageSizeTask> {
public:
    OperationResult go(const QVRecordRef& folderFace) override;

    // The capacity in the output of `resize -limits`: with exactly three
    // tab-separated fields, the second (the current size in 512-byte sectors)
    // times 0.5 times 1000.0, truncated. The factor is what the records have
    // always held, so capacities stay comparable with older ones, although
    // 512-byte sectors would suggest 512. Nothing for any other output.
    static std::optional<uint64_t> capacityFromLimits(const std::string& output);
};

} // namespace qv
