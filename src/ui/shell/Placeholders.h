#pragma once
// The screens that other parts of the application bring, reached through one
// function each so that the shell never needs to know more of them.
#include <functional>

class QWidget;
class QSystemTrayIcon;

namespace qv::ui {

// The folder list (with its empty screen inside it).
QWidget* makeFolderListScreen(QWidget* parent);
// The set-up assistant of a first run, shown; `finished` hears whether a
// Folder Set was made.
QWidget* showSetupAssistant(QWidget* parent, std::function<void(bool setCreated)> finished);
// The floating panels and the tray balloon as ways to tell the user, once the
// tray icon exists (null without a tray).
void installNotificationDeliveries(QSystemTrayIcon* trayOrNull);

} // namespace qv::ui
