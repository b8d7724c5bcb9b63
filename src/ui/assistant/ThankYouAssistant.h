#pragma once
// The last step: the set-up is done. Its only button closes the assistant.
#include "ui/assistant/QVBaseAssistant.h"

namespace qv::ui {

class ThankYouAssistant : public QVBaseAssistant {
    Q_OBJECT
public:
    explicit ThankYouAssistant(QWidget* parent = nullptr);
    QStringList orderedSteps() const override;
    void start() override;
};

} // namespace qv::ui
