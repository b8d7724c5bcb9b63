#pragma once
// Start-up's one joining of the layers: a lower layer that must reach up (the
// tasks run folder actions, the folder list queues tasks) is handed what it
// needs here, so that no include ever points up. Every front end calls this
// once, before it opens a Folder Set.
namespace qv {

// Installs the folder actions runner of the tasks (automation's
// ActionsManager), the task makers of the folder list (the task classes), the
// backup and the reload of the master file for the upgrade's assistant, and
// makes the folder list, which lends itself to the layers below as the host of
// the faces on show.
void QVConnectLayers();

} // namespace qv
