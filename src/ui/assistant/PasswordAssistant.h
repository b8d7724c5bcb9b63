#pragma once
// The password step: the first password, typed twice, with its strength shown
// live, and the first Folder Set created and saved under it. A failure to make
// or save the set is fatal: nothing works without one.
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>

#include "ui/assistant/QVBaseAssistant.h"

namespace qv::ui {

class MatchMark;
struct FirstSetOutcome;

class PasswordAssistant : public QVBaseAssistant {
    Q_OBJECT
public:
    explicit PasswordAssistant(QWidget* parent = nullptr);
    QStringList orderedSteps() const override;
    void start() override;
    void nextPressed() override;

    // When set (a further Folder Set, made later on), the step has a "Cancel"
    // button beside "Next" that ends it without a set.
    void setCancellable(bool cancellable) { cancellable_ = cancellable; }

    QLineEdit* passwordField() const { return password_; }
    QLineEdit* repeatField() const { return repeat_; }
    QLabel* strengthText() const { return strengthText_; }
    QProgressBar* strengthLevel() const { return strengthLevel_; }
    // Shown only when the second field holds something; whether it says "match".
    bool matchShown() const;
    bool matchSaysEqual() const;
    // While the first set is being checked and made on a worker thread.
    bool isWorking() const { return working_; }

    // The colours of the three levels in the live text.
    static QColor levelColor(int score);

private:
    void passwordChanged();
    // Creates the set and goes on; the sheets of the checks before come first.
    void createSetAndGoOn();
    void setWorking(bool working);
    // Back on the main thread with what the worker found.
    void firstSetMade(const FirstSetOutcome& outcome);
    void stayOnPassword();
    [[noreturn]] void fail(const QString& verb, const std::string& description);
    void cancelPressed();

    QLineEdit* password_ = nullptr;
    QLineEdit* repeat_ = nullptr;
    QLabel* strengthText_ = nullptr;
    QProgressBar* strengthLevel_ = nullptr;
    MatchMark* match_ = nullptr;
    QPushButton* cancel_ = nullptr;
    bool cancellable_ = false;
    bool working_ = false;
};

} // namespace qv::ui
