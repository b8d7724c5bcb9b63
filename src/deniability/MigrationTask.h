#pragma once
// The upgrade of a database to the level every database must reach: a version 1
// file, or a version 2 file with fewer than two Folder Sets, gets fake sets
// (5 to 15 sets in all, at least one added) and fake disk images of the sizes
// the assistant planned. It alone sets the version.
//
// All or nothing on disk: the master file is written once, at the end. A run
// that fails or is cancelled leaves the file as it was and deletes the images
// it made; a run that dies leaves its images in the note (FakeImageNote), and
// the next start cleans them away (fakeFolderCleanup).
//
// Every container the upgrade makes (set blobs, folder passwords, image
// tokens) is made under scrypt parameters measured once before the work
// starts: measured while the derivations run side by side, they would come out
// cheaper than those of a set saved alone and mark every fake.
#include <cstddef>
#include <memory>
#include <optional>

#include "deniability/DBRandomSubdb.h"
#include "tasks/BaseFolderTask.h"

namespace qv {

class PDAssistant;

class MigrationTask : public FolderTask<MigrationTask> {
public:
    // The task's operation, for the task queue; the assistant shows its progress.
    static OperationRef taskWithAssistant(const std::shared_ptr<PDAssistant>& assistant);

    // Never while the setting `skipmigrationTov3` is on; version 1: always;
    // version 2: with fewer than two sets; any other version: never.
    static bool needsVersion2Migration(const DBMasterRef& master);
    static bool needsMigration(const DBMasterRef& master) { return needsVersion2Migration(master); }

    // Deletes the images the note lists and takes them out of it (an image
    // already gone is only taken out), then deletes the note once it is empty.
    // Only images (".sparsebundle" directories) are ever deleted. Returns the
    // number of images deleted.
    static size_t fakeFolderCleanup();

    OperationResult go(const QVRecordRef& folderFace) override;

    // The processor cores of this machine.
    static unsigned countCores();
    // When the task's operation was cancelled: cancels the fake images' queue too.
    bool cancelOpsIfUserCancelled();
    // Adds `count` fake sets and the fake images; false with an error (1001 when
    // images failed). Memory only, apart from the images.
    bool addRandomSubDBs(long count, QVError* error);
    // The whole upgrade, ending with migrationEnded on the assistant.
    std::optional<QVError> performV2Migration();

    std::shared_ptr<PDAssistant> assistant;
    // How many fake sets are made at a time (0: one per core) and how many
    // images (0: twice the cores, at least 4). The benchmark compares with 1.
    unsigned setWidth = 0;
    int imageWidth = 0;

private:
    DBMasterRef master() const;
    void labels(const std::string& title, const std::string& detail) const;
    void progress(double percent) const;

    std::unique_ptr<OperationQueue> queue_;
};

} // namespace qv
