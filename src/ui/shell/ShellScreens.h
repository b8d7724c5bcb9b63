#pragma once
// The screens that other parts of the application bring, reached through one
// function each so that the shell never needs to know more of them.
#include <functional>

#include "vault/DBMaster.h"

class QWidget;
class QSystemTrayIcon;

namespace qv::ui {

class FolderListScreen;

// The folder list (with its empty screen inside it).
FolderListScreen* makeFolderListScreen(QWidget* parent);
// The set-up assistant of a first run on `master` (the master file the
// application opened), shown; `finished` hears whether a Folder Set was made.
QWidget* showSetupAssistant(QWidget* parent, DBMasterRef master, std::function<void(bool setCreated)> finished);
// The floating panels and the tray balloon as ways to tell the user, once the
// tray icon exists (null without a tray).
void installNotificationDeliveries(QSystemTrayIcon* trayOrNull);

} // namespace qv::ui
