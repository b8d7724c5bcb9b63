#pragma once
// What a rescue asks of the front end (disk/RescueFrontEnd.h), answered on the
// terminal: the place to move an image to is asked for (standard input when it
// is not a terminal), and a password the clipboard can't take (qv has none) is
// shown on the terminal only, and only when the user says so there.
namespace qv::cli {

void installTerminalRescueHooks();

} // namespace qv::cli
