#pragma once
// Switches desktop search indexing of an unlocked folder's volume to the
// opposite of what it is, through the program qv-index (marker files at the
// volume's root; see disk/FileSystemIndexing.h). A locked folder is refused:
// its empty folder must never collect markers.
#include <string>

#include "tasks/BaseFolderTask.h"

namespace qv {

class ToggleSpotlightTask : public FolderTask<ToggleSpotlightTask> {
public:
    OperationResult go(const QVRecordRef& folderFace) override;

    // Whether qv-index's state report says indexing is off: true unless the
    // text holds "enabled", in any case.
    static bool isDisabled(const std::string& text);
    // The state of the volume on `mountpoint` (`qv-index -s`). False with
    // *error set when it can't be told.
    static bool spotLightEnabledForMountpoint(const std::string& mountpoint, QVError* error);
    // Turns indexing on or off (`qv-index -i on|off`).
    static OperationResult enableSpotlight(bool enable, const std::string& mountpoint);
};

} // namespace qv
