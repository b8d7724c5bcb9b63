#pragma once
// How the application shows itself: a tray icon with a panel beside it, or a
// normal window. The setting QVWindowMode asks for one; a desktop without a
// tray gets the window, so the application is never out of reach.
#include <cstdint>

namespace qv::ui {

enum class ShellMode { Panel, Window };

// 0 asks for the panel; any other value for the window.
ShellMode chooseShellMode(int64_t windowModeSetting, bool trayAvailable);

} // namespace qv::ui
