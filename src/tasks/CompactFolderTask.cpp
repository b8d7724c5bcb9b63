#include "tasks/CompactFolderTask.h"

#include <algorithm>

#include "notify/QVNotificationCenter.h"
#include "tasks/ImageToolCommand.h"
#include "toolkit/Log.h"

namespace qv {

std::string CompactFolderTask::claimedSpace(const std::string& output) {
    std::string lower = output;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    static const std::string head = "reclaimed ", tail = " out of";
    const auto start = lower.find(head);
    const auto end = lower.find(tail);
    if (start == std::string::npos || end == std::string::npos) return {};
    const auto from = start + head.size();
    if (end < from) return {};
    return output.substr(from, end - from);
}

OperationResult CompactFolderTask::go(const QVRecordRef& folderFace) {
    return QVRunWithFolderLocked(
        *this, folderFace,
        "The image file '%s' cannot be compacted because it's currently unlocked!\nLock the folder to compact it",
        "Compacting disk image", [&] {
            const std::string image = QVImagePathOfFace(folderFace);
            const ImageToolRun run = QVRunImageToolForFace(folderFace, {"compact", "-stdinpass", image}, true);
            auto& centre = QVNotificationCenter::defaultCenter();
            imageError = run.error;
            if (run.error) {
                centre.postAlert(QVFormat("Error compacting image file\n'%s'\n", run.error->description.c_str()), true);
                return;
            }
            claimed = claimedSpace(run.output);
            QVLogInfo(QVFormat("compacted '%s': %s reclaimed", image.c_str(), claimed.c_str()));
            centre.postInfo("Image file compacted successfully", false);
        });
}

} // namespace qv
