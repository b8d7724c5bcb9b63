#pragma once
// The window's size and place, kept in the settings from one run to the next.
class QWidget;

namespace qv::ui {

void saveWindowGeometry(QWidget* window);
void restoreWindowGeometry(QWidget* window);

} // namespace qv::ui
