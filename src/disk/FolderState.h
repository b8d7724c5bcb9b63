#pragma once
// The live state of a folder, asked of the system rather than of its records.
#include "toolkit/QVError.h"
#include "vault/Schemas.h"

namespace qv {

// Whether the folder's mountpoint is a mounted volume. This, and not a face's
// `locked` field, is the truth about a folder. When the answer can't be found out,
// it logs the reason, answers false and fills *error (when given) with the
// underlying code and "Couldn't figure out if folder is locked or unlocked.
// Reason:\n\n" followed by the reason.
bool QVFolderIsUnlocked(const QVRecordRef& folder, QVError* error);

// A new FolderFace of the folder with the default status colour. Its `locked` holds
// QVFolderIsUnlocked's answer as it stands, not its negation: the folder list sets
// `locked` right for the faces it shows, and faces made for other uses never read it.
QVRecordRef QVFolderFaceCreate(const QVRecordRef& folder);

} // namespace qv
