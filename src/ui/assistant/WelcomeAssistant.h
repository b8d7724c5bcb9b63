#pragma once
// The first step: the greeting. Its left button quits the application.
#include "ui/assistant/QVBaseAssistant.h"

namespace qv::ui {

class WelcomeAssistant : public QVBaseAssistant {
    Q_OBJECT
public:
    explicit WelcomeAssistant(QWidget* parent = nullptr);
    QStringList orderedSteps() const override;
    void start() override;
    void nextPressed() override;
    void prevPressed() override;
};

} // namespace qv::ui
