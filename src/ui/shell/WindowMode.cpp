#include "ui/shell/WindowMode.h"

namespace qv::ui {

ShellMode chooseShellMode(int64_t windowModeSetting, bool trayAvailable) {
    if (windowModeSetting != 0 || !trayAvailable) return ShellMode::Window;
    return ShellMode::Panel;
}

} // namespace qv::ui
