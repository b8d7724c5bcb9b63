#pragma once
// What every task asks before it touches a folder: do the records agree with the
// disk (repairing what can be repaired), is the folder unlocked, how big is it,
// and how much room is left where its images go.
//
// QVFolderIsUnlocked is declared with the record makers in vault/FolderState.h and
// defined here, with the mount test it stands on.
#include <cstdint>
#include <string>

#include "toolkit/QVError.h"
#include "disk/FolderState.h"
#include "vault/QVRecord.h"

namespace qv {

// Answers of sanityCheckFolderFace.
enum QVSanityCode : long {
    QVSanityOK = 0,                 // consistent, or repaired
    QVSanityLockStateUnknown = 2000,
    QVSanityMountpointMissing = 2001,
    QVSanityDiskImageMissing = 2002,
    QVSanityNullFace = 2003,
};

// Free bytes (for an unprivileged user) of the volume that holds storage.url, or -1
// (logged) when it can't be found out.
int64_t QVStorageAvailableBytes(const QVRecordRef& storage);

// Compares a face's records with the disk, in this order:
// - a null face: 2003;
// - a folder not marked encrypted that has an image after all: posts a sticky alert,
//   marks it encrypted and saves its Folder Set (on the main thread, waiting), then
//   checks again from the start and answers that;
// - an encrypted folder whose mount point can't be reached: shows "Mountpoint
//   missing!" and marks the face locked (posted to the main thread); 2001;
// - with an error out-parameter, a lock state that can't be found out: 2000 (with
//   no out-parameter this test is skipped);
// - a face whose `locked` disagrees with the mount table gets the mount table's
//   answer (posted), and the check goes on;
// - an image that can't be reached: shows "Diskimage missing!" (posted); 2002;
// - otherwise 0.
// *error gets the application's domain, the underlying error's code (2003 for a
// null face) and a text for the user. Runs on any thread; waits for the main
// thread only in the repair of `encrypted`, and runs that in place when called
// from the main thread.
long sanityCheckFolderFace(const QVRecordRef& face, QVError* error);

// The logical size in bytes of everything in the folder's mount point. With
// `updateStatusText`, the face's status line says "Calculating size...", then
// "Calculating... <size so far>" past every 200 MiB mark (the next mark 400 MiB
// further on), and "Size: <size>" at the end (all posted to the main thread). The
// walk stops as soon as the face's opCanceled is set ("Cancelling..." with an
// indeterminate bar when reporting). QVSizeFailed on failure (code -1) or
// cancel (code 1000).
inline constexpr uint64_t QVSizeFailed = UINT64_MAX;
uint64_t folderSizeOfFolderFace(const QVRecordRef& face, bool updateStatusText, QVError* error);
// The same for the volume of the folder's image mounted elsewhere (a restore
// measures its image on the rescue folder), with the face's status and cancel.
uint64_t folderSizeOfFolderFace(const QVRecordRef& face, const std::string& mountpoint, bool updateStatusText,
                                QVError* error);

} // namespace qv
