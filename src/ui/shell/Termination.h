#pragma once
// The end of a desktop session comes as SIGTERM (SIGINT from a terminal): the
// application then quits as from its menu, so the settings are written and the
// backup of the run is made.
namespace qv::ui {

// Needs the QApplication; call once.
void quitOnTerminationSignals();

} // namespace qv::ui
