#pragma once
// One step of the set-up assistant: its page (this widget), the titles it adds
// to the list of steps, and what it does when it starts and when the assistant's
// buttons are pressed. The base goes on or back.
#include <QMessageBox>
#include <QStringList>
#include <QWidget>
#include <functional>

class QLabel;
class QVBoxLayout;

namespace qv::ui {

class QVSetupAssistant;

class QVBaseAssistant : public QWidget {
    Q_OBJECT
public:
    explicit QVBaseAssistant(QWidget* parent = nullptr);

    QVSetupAssistant* controller() const { return controller_; }
    void setController(QVSetupAssistant* controller) { controller_ = controller; }

    // The titles this step shows in the list of steps.
    virtual QStringList orderedSteps() const = 0;
    // The step is on show: set up buttons and focus.
    virtual void start() {}
    virtual void nextPressed();
    virtual void prevPressed();

    // The sheet on show, if any (window-modal on the assistant).
    QMessageBox* sheet() const { return sheet_; }

protected:
    // A window-modal sheet on the assistant. `then` hears whether the default
    // button was chosen (Escape chooses the default). With no alternate, the
    // sheet has the default button only.
    void showSheet(QMessageBox::Icon icon, const QString& title, const QString& text, const QString& defaultText,
                   const QString& alternateText, std::function<void(bool defaultChosen)> then);

    // The page's layout with its heading and an explanation below it.
    QVBoxLayout* pageLayout(const QString& heading, const QString& explanation);

private:
    QVSetupAssistant* controller_ = nullptr;
    QMessageBox* sheet_ = nullptr;
};

} // namespace qv::ui
