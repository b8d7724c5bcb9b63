#include "ui/assistant/WelcomeAssistant.h"

#include <QCoreApplication>
#include <QVBoxLayout>

#include "ui/assistant/QVSetupAssistant.h"

namespace qv::ui {

WelcomeAssistant::WelcomeAssistant(QWidget* parent) : QVBaseAssistant(parent) {
    QVBoxLayout* layout = pageLayout(
        tr("Welcome to Quillvane"),
        tr("Quillvane keeps the folders you choose encrypted while they are locked. Each folder's contents live "
           "in an encrypted disk image that is mounted on the folder itself when you unlock it, so every "
           "program sees an ordinary folder.\n\n"
           "Your folders belong to a Folder Set that only its password opens. The next step creates your "
           "first Folder Set."));
    layout->addStretch(1);
}

QStringList WelcomeAssistant::orderedSteps() const { return {tr("Setup Assistant")}; }

void WelcomeAssistant::start() {
    controller()->prevButton()->setText(tr("Quit"));
    controller()->prevButton()->setEnabled(true);
    controller()->nextButton()->setFocus();
}

void WelcomeAssistant::nextPressed() {
    controller()->prevButton()->setText(tr("Go Back"));
    controller()->prevButton()->setVisible(true);
    QVBaseAssistant::nextPressed();
}

void WelcomeAssistant::prevPressed() {
    controller()->dismissAssistant();
    QCoreApplication::quit();
}

} // namespace qv::ui
