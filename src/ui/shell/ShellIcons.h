#pragma once
// The application's own pictures: from the desktop's icon theme when it has
// them (an installed Quillvane puts them there), else the copies built into
// the program.
#include <QIcon>

namespace qv::ui {

enum class ShellIcon { Application, StatusMenu, StatusMenuPressed, AnchorOff, AnchorOn };

QIcon shellIcon(ShellIcon which);

} // namespace qv::ui
