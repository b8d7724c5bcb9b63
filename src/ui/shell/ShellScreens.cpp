#include "ui/shell/ShellScreens.h"

#include "ui/assistant/QVSetupAssistant.h"
#include "ui/folders/FolderListScreen.h"
#include "ui/notify/ScreenDeliveries.h"

namespace qv::ui {

FolderListScreen* makeFolderListScreen(QWidget* parent) { return new FolderListScreen(parent); }

QWidget* showSetupAssistant(QWidget* parent, DBMasterRef master, std::function<void(bool setCreated)> finished) {
    // The assistant's new set must land in the database the shell unlocks later.
    QVSetupAssistant::setDefaultDatabase(std::move(master));
    QVSetupAssistant* assistant = QVSetupAssistant::showFirstRun(parent);
    QObject::connect(assistant, &QVSetupAssistant::finished, assistant,
                     [finished = std::move(finished)](bool setCreated) {
                         if (finished) finished(setCreated);
                     });
    return assistant;
}

void installNotificationDeliveries(QSystemTrayIcon* trayOrNull) { installScreenDeliveries(trayOrNull); }

} // namespace qv::ui
