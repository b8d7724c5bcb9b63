#pragma once
// The steps of the first run, in order: the welcome, the first password and
// Folder Set, and the end. The steps of deniability and of starting at login
// go in after the password step (QVSetupAssistant::insertAssistant).
namespace qv::ui {

class QVSetupAssistant;

void fillSetupAssistant(QVSetupAssistant& assistant);

} // namespace qv::ui
