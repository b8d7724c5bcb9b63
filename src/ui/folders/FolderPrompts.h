#pragma once
// How the folder screens tell the user of a refusal and ask a yes/no question.
// One place, so that the refusals can move to the floating panels later.
#include <QString>

class QWidget;

namespace qv::ui {

// A refusal or failure: a warning box with `title`, `text` and OK, shown
// kRefusalDelayMs later (the caller goes on at once).
constexpr int kRefusalDelayMs = 200;
void showFolderRefusal(QWidget* parent, const QString& title, const QString& text);

// A blocking Yes/No question; `defaultYes` picks the default button.
bool askFolderYesNo(QWidget* parent, const QString& title, const QString& text, bool defaultYes);

// While it lives, the core's yes/no questions (a folder inside ~/.local, a
// missing disk image) are asked in a dialog over `parent` when the application
// has no way of asking installed yet; otherwise it changes nothing.
class FolderQuestions {
public:
    explicit FolderQuestions(QWidget* parent);
    ~FolderQuestions();
    FolderQuestions(const FolderQuestions&) = delete;
    FolderQuestions& operator=(const FolderQuestions&) = delete;

private:
    bool installed_ = false;
};

} // namespace qv::ui
