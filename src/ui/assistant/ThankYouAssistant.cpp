#include "ui/assistant/ThankYouAssistant.h"

#include <QVBoxLayout>

#include "ui/assistant/QVSetupAssistant.h"

namespace qv::ui {

ThankYouAssistant::ThankYouAssistant(QWidget* parent) : QVBaseAssistant(parent) {
    QVBoxLayout* layout =
        pageLayout(tr("You're All Set"),
                   tr("Your Folder Set is ready. Unlock it with its password, then add the folders you want to keep "
                      "encrypted: drop them on Quillvane's window or choose \"Add Folder…\".\n\n"
                      "Quillvane lives in the tray: click its icon whenever you want to lock or unlock a folder."));
    layout->addStretch(1);
}

QStringList ThankYouAssistant::orderedSteps() const { return {tr("Finished Setup")}; }

void ThankYouAssistant::start() {
    controller()->prevButton()->setVisible(false);
    controller()->nextButton()->setText(tr("Close"));
    controller()->nextButton()->setFocus();
}

} // namespace qv::ui
