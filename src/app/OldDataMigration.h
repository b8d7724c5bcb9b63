#pragma once
// Brings the data of the previous major version over at start: only when the
// old master file exists and the new one does not. The images are moved; the
// master file, the "alock" file and the backups are copied, so that the old
// master file stays behind. Each failure is logged and the next step runs.
namespace qv {

// Returns true when there was old data to bring over (whatever the outcome of each step).
bool moveOldDataIfNeeded();

} // namespace qv
