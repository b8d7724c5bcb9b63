#pragma once
// The desktop application's ways of telling the user, installed once at start-up
// on the main thread, after the QApplication exists.
#include <QSystemTrayIcon>

#include "notify/QVNotificationCenter.h"

namespace qv::ui {

// Installs in the default notification centre the built-in floating panels
// (way 1) and the tray icon's balloon (way 2; with no tray, the panels), the
// yes/no question as a blocking message box, the tasks' delayed alert panels
// as message boxes, and the rescue's clipboard, save dialog and password
// panel (RescueScreens.h).
void installScreenDeliveries(QSystemTrayIcon* trayOrNull);

// The same for a given centre, without the process-wide hooks (tests).
void installScreenDeliveries(QVNotificationCenter& centre, QSystemTrayIcon* trayOrNull);

// The blocking question: a message box titled "Alert" with "Yes" and "No",
// the default one as told. True for "Yes".
bool askYesNo(const std::string& message, bool defaultButton);

// A task's alert as a message box with "OK" that does not block the caller.
void showAlertPanel(const std::string& title, const std::string& text);

} // namespace qv::ui
