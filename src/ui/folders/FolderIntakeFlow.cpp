#include "ui/folders/FolderIntakeFlow.h"

#include <QCoreApplication>

#include "app/FolderIntake.h"
#include "app/FolderList.h"
#include "disk/URLHelpers.h"
#include "toolkit/Log.h"
#include "ui/folders/FolderPrompts.h"
#include "vault/Schemas.h"

namespace qv::ui {

namespace {

// The texts of this flow, for the translators.
struct FolderIntakeFlow {
    Q_DECLARE_TR_FUNCTIONS(FolderIntakeFlow)
};

} // namespace

bool bringFolderIn(QWidget* parent, const QString& path) {
    FolderList& list = FolderList::singleton();
    if (!list.subdb()) {
        QV_LOG_WARN("Please unlock Quillvane first.");
        showFolderRefusal(parent, FolderIntakeFlow::tr("Quillvane locked"),
                          FolderIntakeFlow::tr("Please unlock Quillvane first."));
        return false;
    }
    const std::string where = path.toStdString();
    QVError error;
    {
        FolderQuestions questions(parent);
        if (!isGoodFolderAtURL(where, &error)) {
            // A "no" to the question clears the error: nothing more to tell.
            if (!error.empty()) {
                QV_LOG_WARN(error.description);
                showFolderRefusal(parent, FolderIntakeFlow::tr("Bad folder"),
                                  QString::fromStdString(error.description));
            }
            return false;
        }
    }
    if (isSparseBundle(where)) {
        showFolderRefusal(parent, FolderIntakeFlow::tr("Bad folder"),
                          FolderIntakeFlow::tr("Disk images can't be imported here yet."));
        return false;
    }
    const QVRecordRef storage = QVStorageForNewFolder(&error);
    if (!storage) {
        QV_LOG_WARN(error.description);
        showFolderRefusal(parent, FolderIntakeFlow::tr("Device not reachable"),
                          QString::fromStdString(error.description));
        return false;
    }
    if (!list.encryptFolder(QVFolderCreate(storage, URLValue{where}))) {
        showFolderRefusal(parent, FolderIntakeFlow::tr("Bad folder"),
                          FolderIntakeFlow::tr("Quillvane couldn't start encrypting %1.").arg(path));
        return false;
    }
    return true;
}

} // namespace qv::ui
