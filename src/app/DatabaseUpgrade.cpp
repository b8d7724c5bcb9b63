#include "app/DatabaseUpgrade.h"

#include <filesystem>

#include "deniability/FakeImageNote.h"
#include "deniability/MigrationTask.h"
#include "toolkit/Log.h"
#include "vault/Locations.h"

namespace qv {

std::unique_ptr<FolderTaskMark> QVHoldUpgradeMark() { return FolderTaskMark::hold("database-upgrade"); }

void QVCleanUpInterruptedUpgrade(const DBMasterRef& master, bool needsUpgrade) {
    std::error_code ec;
    if (!master || !std::filesystem::exists(fakeImagesNoteURL(), ec)) return;
    auto mark = QVHoldUpgradeMark();
    if (!mark) return;
    if (needsUpgrade) {
        const size_t deleted = MigrationTask::fakeFolderCleanup();
        QVLogInfo(QVFormat("removed %zu images of an upgrade that did not end", deleted));
    } else {
        FakeImageNote::deleteNote();
    }
}

} // namespace qv
