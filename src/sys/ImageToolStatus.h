#pragma once
// How qv-image ends: its exit status is the contract between the tool and the
// core that runs it (documented in docs/CLI.md). The tool exits with these, and
// the core tells its failures apart by them; both read them from here only.
namespace qv {

enum QVImageToolStatus : int {
    QVImageExitOK = 0,
    QVImageExitFailure = 1, // I/O, a helper program failed, anything else
    QVImageExitUsage = 2,   // bad arguments, bad size, empty password
    QVImageExitWrongPassword = 3,
    QVImageExitNotAnImage = 4,    // missing, damaged or not an image at all
    QVImageExitAttached = 5,      // the image is in use by another qv-image process
    QVImageExitBadMountPoint = 6, // missing, not a directory, not empty, already a mount point
    QVImageExitNoSpace = 7,       // not enough space on the disk holding the image
    QVImageExitBusy = 8,          // a process holds the volume
};

} // namespace qv
