#include "tasks/ImageSizeTask.h"

#include <cstdlib>
#include <vector>

#include "disk/DiskInfoFile.h"
#include "tasks/ImageToolCommand.h"
#include "toolkit/Log.h"
#include "toolkit/MainThread.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv {

std::optional<uint64_t> ImageSizeTask::capacityFromLimits(const std::string& output) {
    std::vector<std::string> fields(1);
    for (const char c : output) {
        if (c == '\t')
            fields.emplace_back();
        else
            fields.back() += c;
    }
    if (fields.size() != 3) return std::nullopt;
    const long long sectors = std::strtoll(fields[1].c_str(), nullptr, 10);
    const double bytes = static_cast<double>(sectors) * 0.5 * 1000.0;
    if (bytes <= 0) return uint64_t{0};
    return static_cast<uint64_t>(bytes);
}

OperationResult ImageSizeTask::go(const QVRecordRef& folderFace) {
    const std::string image = QVImagePathOfFace(folderFace);
    if (image.empty()) return std::nullopt;
    const QVRecordRef folder = FolderFaceRef{folderFace}.folder().as<QVRecord>();
    const Value password = FolderRef{folder}.password();
    const bool stdinpass = password.isData() && !password.toData().empty();
    const ImageToolRun run =
        QVRunImageToolForFace(folderFace,
                              stdinpass ? std::vector<std::string>{"resize", "-limits", "-stdinpass", image}
                                        : std::vector<std::string>{"resize", "-limits", image},
                              stdinpass);
    if (run.error) {
        QV_LOG_ERROR(QVFormat("couldn't read the capacity of '%s': %s", image.c_str(), run.error->description.c_str()));
        return std::nullopt;
    }
    const uint64_t capacity = capacityFromLimits(run.output).value_or(0);
    if (capacity == 0) return std::nullopt;
    performBlockOnMainThread(
        [&] {
            DiskInfoRef{FolderRef{folder}.diskinfo().as<QVRecord>()}.setCapacity(Value(static_cast<int64_t>(capacity)));
            QVDisplayFolderSizeInfo(folderFace);
        },
        true);
    return QVDiskInfoSerializeFromFolder(folder);
}

} // namespace qv
