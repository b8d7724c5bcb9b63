#pragma once
// One fake disk image: a true encrypted image, made by the same code as a real
// folder's and under a password that a fake Folder Set holds, filled with
// random files and given dates that look like use. The upgrade (MigrationTask)
// runs these side by side on a queue of its own, one per fake folder that gets
// an image, and cancels them through that queue.
//
// The image is put in the note of images in the making (FakeImageNote) before
// it exists and stays there until the whole upgrade has ended, so that a run
// that dies midway can be cleaned away.
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tasks/BaseFolderTask.h"
#include "vault/ScryptParams.h"

namespace qv {

class FakeDiskImageTask : public FolderTask<FakeDiskImageTask> {
public:
    // Called once at the end with the error (or nothing) and whether the
    // operation was cancelled.
    using CompletionBlock = std::function<void(const std::optional<QVError>& error, bool cancelled)>;

    // `size` is the number of bytes of random content, truncated to a whole
    // number. Without `completion` an empty one is used. `tokenParameters`, when
    // given, are the scrypt parameters the image's token is made with (measured
    // once for the whole upgrade); otherwise the image tool measures its own.
    static OperationRef taskWithFolderFace(const QVRecordRef& folderFace, double size, CompletionBlock completion,
                                           std::optional<QVScryptParams> tokenParameters = std::nullopt);

    OperationResult go(const QVRecordRef& folderFace) override;

    // Writes files "f1.dat", "f2.dat", ... of 1 MiB each at the top of the volume
    // until `imageSize` bytes are written or the operation is cancelled; every
    // file holds the same random buffer (none of whose bytes is 255). A failed
    // write is skipped. Returns the number of files written.
    uint64_t createRandomFilesInURL(const std::string& volume, uint64_t imageSize);

    static constexpr uint64_t kRandomFileSize = 1048576;

    uint64_t folderContentSize = 0;
    CompletionBlock completionBlock;
    std::optional<QVScryptParams> tokenParameters;

private:
    bool cancelled() const;
};

} // namespace qv
