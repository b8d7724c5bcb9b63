#pragma once
// What a process that died in the middle of its work leaves on a folder, and
// how the next one settles it.
//
// A folder whose encryption never ended: the process died after the folder's
// record was saved, still marked not encrypted. Encrypting the folder again
// settles it by what the dead task had done, read from the disk:
//
// - the original folder still stands at its path, holding the files: nothing
//   irreversible happened, so the half-made (or even complete) image is
//   deleted and the record taken out of the set; the folder is then encrypted
//   afresh from its untouched contents;
// - the original is gone (in the Trash) and the complete image stands in the
//   storage: only the last steps were missing, so the empty folder is made
//   at the path and the record saved as encrypted.
//
// Main thread; the caller holds the folder's task mark, so no other process is
// working on it.
#include "toolkit/QVError.h"
#include "vault/QVRecord.h"

namespace qv {

enum class UnfinishedEncryption {
    StartOver, // the image and the record are gone: encrypt the folder again
    Completed, // the encryption is finished now
    Failed,    // neither could be done; *error says why
};

// Whether `face`'s folder is one whose encryption never ended.
bool QVIsUnfinishedEncryption(const QVRecordRef& face);

UnfinishedEncryption QVSettleUnfinishedEncryption(const QVRecordRef& face, QVError* error);

// A damaged folder: its volume is still mounted on it, but the processes that
// served it died, so it answers only errors ("Transport endpoint is not
// connected", I/O errors). Nothing on it can be read or saved any more.
bool QVFolderIsDamaged(const QVRecordRef& face);
// Takes the dead volume away, whoever still holds it, so that the folder is
// locked and its image (left as its last write made it) can be unlocked
// again. Main thread.
bool QVTakeAwayDeadVolume(const QVRecordRef& face, QVError* error);

} // namespace qv
