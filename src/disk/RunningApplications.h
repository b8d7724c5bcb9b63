#pragma once
// Applications as the Linux desktop knows them. An application is a desktop
// entry (a "*.desktop" file of type Application); its identifier is the entry's
// desktop file id ("org.gnome.Terminal.desktop"), looked up in the
// "applications" directories of XDG_DATA_HOME and then XDG_DATA_DIRS, the
// first directory that has the id winning. A running instance of an
// application is a process of our user whose executable is the entry's
// program; asking it to quit is SIGTERM, never SIGKILL.
//
// Desktop entries are read and launched with GIO, the desktop's own reader of
// them; the lookup by id and the directories are ours, so that they follow the
// environment as it is at each call.
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "toolkit/QVError.h"

namespace qv {

// One application entry.
struct QVDesktopApplication {
    std::string desktopFileId;  // "org.gnome.Terminal.desktop"
    std::string path;           // the entry's file
    std::string name;           // its Name, in the user's language
    // The program its Exec line runs, as an absolute path with links resolved;
    // empty when it can't be found.
    std::string program;
    // The Categories list, "TerminalEmulator" among them for a terminal.
    std::vector<std::string> categories;
};

// The file of the entry with this desktop file id: in the first applications
// directory that has it, either under its own name or in a subdirectory whose
// name stands before a dash ("kde-konsole.desktop" as "kde/konsole.desktop").
// Empty when there is none.
std::string QVDesktopEntryPathForId(const std::string& desktopFileId);

// The application of the entry at `path`; nullopt when the file is no readable
// entry of type Application, is marked Hidden, or names a program (Exec or
// TryExec) that isn't installed.
std::optional<QVDesktopApplication> QVDesktopApplicationAtPath(const std::string& path);
// The same, found by desktop file id.
std::optional<QVDesktopApplication> QVDesktopApplicationWithId(const std::string& desktopFileId);
// Every application the user can see, each id once (the first directory wins,
// also where its entry there is Hidden).
std::vector<QVDesktopApplication> QVDesktopApplications();

// Starts the application of the entry at `path` as the desktop would, by its
// Exec line, and doesn't wait for it: the new process is nobody's child here
// and outlives us. False (with the reason) when the entry can't be read or the
// program can't be started.
bool QVLaunchApplication(const std::string& path, QVError* error);

// A process of our user that is an instance of an application.
class QVRunningApplication {
public:
    // The instances of the application with this desktop file id, by process
    // id. Empty when no such application is installed or none of it runs.
    static std::vector<QVRunningApplication> runningApplicationsWithBundleIdentifier(const std::string& desktopFileId);
    // The instances of one application.
    static std::vector<QVRunningApplication> runningInstancesOf(const QVDesktopApplication& application);

    pid_t processIdentifier() const { return pid_; }
    const std::string& bundleIdentifier() const { return bundleIdentifier_; }
    // The application's name in the user's language.
    const std::string& localizedName() const { return localizedName_; }

    // Asks the instance to quit (SIGTERM). False when the request is refused
    // (not ours to signal); an instance that has already gone counts as asked.
    bool terminate() const;
    // The instance has ended: its process is gone, is a zombie, or its process
    // id now belongs to another process.
    bool isTerminated() const;

private:
    QVRunningApplication(pid_t pid, unsigned long long startTime, std::string bundleIdentifier,
                         std::string localizedName);

    pid_t pid_ = 0;
    unsigned long long startTime_ = 0;  // in clock ticks after boot: tells a reused pid apart
    std::string bundleIdentifier_;
    std::string localizedName_;
};

// The desktop category of terminal emulators.
inline constexpr const char* QVTerminalEmulatorCategory = "TerminalEmulator";

// The terminal application the user is running: an instance of the program
// that x-terminal-emulator leads to when one runs, otherwise the first running
// application in the TerminalEmulator category. nullopt when none runs.
std::optional<QVRunningApplication> QVRunningTerminalApplication();

} // namespace qv
