#pragma once
// Handing paths to the desktop: opening an item with its default application
// (xdg-open) and showing items in the file manager (the freedesktop
// FileManager1 service on the session bus, or the parent folder opened when no
// file manager offers it). Neither waits for the application it starts.
#include <string>
#include <vector>

#include "toolkit/QVError.h"

namespace qv {

// Starts `xdg-open <path>` in the background; false (with the reason) when it
// can't be started. What the opened application does later is its own affair.
bool QVOpenURL(const std::string& path, QVError* error = nullptr);

// Shows the items selected in the file manager. False when neither the service
// nor the fallback could be reached.
bool QVRevealInFileManager(const std::vector<std::string>& paths, QVError* error = nullptr);

} // namespace qv
