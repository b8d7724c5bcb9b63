#pragma once
// The screens that the rescue of a folder needs: the clipboard, a save dialog
// for where an image goes, and a panel that shows a password the clipboard
// could not take. installScreenDeliveries installs them as the rescue's hooks
// (disk/RescueFrontEnd.h). All run on the main thread.
#include <QString>
#include <optional>
#include <string>

class QWidget;

namespace qv::ui {

// Puts `text` on the clipboard and checks that it is there; "" clears the
// clipboard. The text is not kept and not logged.
bool copyPasswordToClipboard(const std::string& text);

// A save dialog opened on `proposedPath` (its folder and name): the chosen
// path, or nothing when the user cancels.
std::optional<std::string> askRescueDestination(const std::string& proposedPath, QWidget* parent = nullptr);

// A modal panel whose text holds a secret for the user to write down: it is
// selectable and goes to no log and no notification history.
void showPasswordPanel(const std::string& title, const std::string& text, QWidget* parent = nullptr);

} // namespace qv::ui
