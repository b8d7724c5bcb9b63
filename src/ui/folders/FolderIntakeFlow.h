#pragma once
// Bringing a folder in from the screen (a drop or the folder chooser): the
// intake checks, then the folder is made with the storage for new folders and
// handed to the folder list, which queues its encryption. Refusals are told.
#include <QString>

class QWidget;

namespace qv::ui {

// True when the folder's encryption was queued. Main thread.
bool bringFolderIn(QWidget* parent, const QString& path);

} // namespace qv::ui
