#pragma once
// What the rescue of a folder needs from the front end in use. The core has no
// widgets: the desktop application installs these once at start-up (QClipboard,
// a QFileDialog save panel, raising its window, hiding its tray panel); the
// command-line tool installs what it can. Every hook is optional, and the
// answer of a missing one is written down below, so that the rescue never
// waits for a front end that isn't there.
//
// The hooks are called on the main thread. Install them before any rescue runs;
// installing replaces the previous hook (an empty function removes it).
#include <functional>
#include <optional>
#include <string>

namespace qv {

// Puts `text` on the clipboard; true when it is there. Called with "" to clear
// the clipboard. The text may be an image password: the hook hands it to the
// clipboard and keeps no copy, writes it to no log. Missing: the copy fails,
// and the user is shown the password to write down instead.
using QVClipboardWriter = std::function<bool(const std::string& text)>;
void QVSetClipboardWriter(QVClipboardWriter writer);

// A save panel opened on the proposed path (its directory and file name): the
// path the user chose, or nothing for cancel. Missing: always cancel.
using QVSavePanel = std::function<std::optional<std::string>(const std::string& proposedPath)>;
void QVSetSavePanel(QVSavePanel panel);

// Brings the application's window to the front before an alert. Missing: nothing.
using QVActivateApplication = std::function<void()>;
void QVSetActivateApplication(QVActivateApplication activate);

// Closes the tray panel (the popover) so that a save panel isn't hidden behind
// it. Missing: nothing.
using QVClosePopover = std::function<void()>;
void QVSetClosePopover(QVClosePopover close);

// Shows a rescued item selected in the file manager. Missing: the desktop's
// file manager is asked directly (QVRevealInFileManager).
using QVSelectInFileViewer = std::function<void(const std::string& path)>;
void QVSetSelectInFileViewer(QVSelectInFileViewer select);

// Shows an alert whose text holds a secret (an image password the user must
// write down) in a panel of the front end's own: the text goes into no log,
// no notification history and no file. Missing: the secret can't be shown, and
// the alert goes out through the notification centre without it.
using QVSecretAlert = std::function<void(const std::string& title, const std::string& text)>;
void QVSetSecretAlert(QVSecretAlert alert);

// The hooks as installed (empty functions when missing), for the core's callers.
QVClipboardWriter QVCurrentClipboardWriter();
QVSavePanel QVCurrentSavePanel();
QVActivateApplication QVCurrentActivateApplication();
QVClosePopover QVCurrentClosePopover();
QVSelectInFileViewer QVCurrentSelectInFileViewer();
QVSecretAlert QVCurrentSecretAlert();

} // namespace qv
