#include "ui/assistant/SetupPack.h"

#include "ui/assistant/PasswordAssistant.h"
#include "ui/assistant/QVSetupAssistant.h"
#include "ui/assistant/ThankYouAssistant.h"
#include "ui/assistant/WelcomeAssistant.h"

namespace qv::ui {

void fillSetupAssistant(QVSetupAssistant& assistant) {
    assistant.addAssistant(new WelcomeAssistant());
    assistant.addAssistant(new PasswordAssistant());
    assistant.addAssistant(new ThankYouAssistant());
}

} // namespace qv::ui
