#pragma once
// Crashes are logged, not uploaded: an uncaught exception goes to the log, a
// fatal signal leaves one line on standard error (which the desktop session
// keeps in its journal) before the default action ends the program.
namespace qv::ui {

void installCrashLogging();

} // namespace qv::ui
