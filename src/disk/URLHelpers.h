#pragma once
// Tests and small helpers on a path: what kind of item it is, what volume holds
// it, where it lies, and who holds it open. A path here is what the records call
// a URL: an absolute file path.
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "toolkit/QVError.h"

namespace qv {

// Whether the item at `path` can be reached (stat succeeds, links followed). When
// it can't, *error (when given) gets the errno in the POSIX domain and "<path>:
// <reason>".
bool checkResourceIsReachable(const std::string& path, QVError* error);

// An image of ours: a directory (not a link to one) whose name ends in
// ".sparsebundle" and that holds "Info.plist" or its copy "Info.bckup". The
// desktop keeps no type identifiers for such directories, so the name and the
// header file are what mark one. False on any error.
bool isSparseBundle(const std::string& path);

// The mount point of the volume that holds `path` (links resolved), from the
// mount table: "/" for most paths, "/media/usb" for a file on that stick. "" when
// the path can't be resolved.
std::string volume(const std::string& path);

// The item (links followed) lies on another device than the user's home
// directory. False when either can't be examined.
bool isInExternalVolume(const std::string& path);

// Network file systems, by their mount-table type: NFS, SMB/CIFS, sshfs, 9p,
// AFS, Ceph, GlusterFS and their kind.
bool QVIsNetworkFileSystemType(const std::string& fsType);
// False unless isInExternalVolume (the home volume is taken as local, without
// looking further); then whether the volume's file system is a network one.
bool isNetworkDrive(const std::string& path);

// The path names an application: it ends in ".desktop" (a desktop entry) or in
// ".app" (an application bundle of another system, as may lie in a protected
// folder). Only the name is looked at.
bool isApp(const std::string& path);

// The desktop file id of the desktop entry at `path`: its path below the
// "applications" directory of an XDG data directory, with "/" turned into "-"
// ("org.gnome.Terminal.desktop", "kde-konsole.desktop"); for an entry outside
// those directories, its file name. "" when `path` is no readable ".desktop" file.
std::string bundleID(const std::string& path);

// The item lies directly on the user's Desktop: its parent directory is the
// Desktop directory. The Desktop itself and anything deeper are not.
bool isInDesktop(const std::string& path);

// The processes that hold files under `path` open (the path's whole volume when
// it is a mount point), as `lsof -t` lists them. nullopt on any failure or when
// no process holds anything: lsof then exits with status 1. Runs a program: call
// it from a task thread.
std::optional<std::vector<pid_t>> processesUsingThisURL(const std::string& path);

} // namespace qv
