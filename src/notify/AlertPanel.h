#pragma once
// An alert that a task shows as it ends, with a title, a text and the button
// "OK". It is scheduled on the main thread 0.2 seconds later, so that the
// worker that ends never waits for a modal panel and a tray panel on show has
// time to get out of the way.
//
// The desktop application installs a handler that shows a message box; without
// one (the command-line tool) the alert goes out through the notification
// centre as a sticky critical message "<title>\n\n<text>".
#include <functional>
#include <string>

namespace qv {

// Runs on the main thread. An empty function restores the default.
using QVAlertPanelHandler = std::function<void(const std::string& title, const std::string& text)>;
void QVSetAlertPanelHandler(QVAlertPanelHandler handler);

// Schedules the alert 0.2 seconds from now; callable from any thread.
void QVShowAlertPanelLater(const std::string& title, const std::string& text);

} // namespace qv
