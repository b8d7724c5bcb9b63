#pragma once
// A dark palette for the screens, for desktops whose style gives none and for
// looking at the screens in the dark (`quillvane --dark`, the screen tests).
#include <QPalette>

namespace qv::ui {

QPalette darkPalette();

} // namespace qv::ui
