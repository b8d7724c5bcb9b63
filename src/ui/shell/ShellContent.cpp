#include "ui/shell/ShellContent.h"

#include <QLabel>
#include <QLineEdit>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "ui/folders/FolderListScreen.h"
#include "ui/shell/PasswordScreen.h"
#include "ui/shell/ShellScreens.h"

namespace qv::ui {

ShellContent::ShellContent(QWidget* parent) : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(8, 8, 8, 4);
    stack_ = new QStackedWidget(this);
    password_ = new PasswordScreen(stack_);
    folders_ = makeFolderListScreen(stack_);
    stack_->addWidget(password_);
    stack_->addWidget(folders_);
    layout->addWidget(stack_, 1);
    status_ = new QLabel(this);
    status_->setTextFormat(Qt::PlainText);
    status_->setAccessibleName(tr("Status"));
    layout->addWidget(status_);
    connect(password_, &PasswordScreen::unlocked, this, [this] { showFolderList(); });
}

bool ShellContent::isLocked() const { return stack_->currentWidget() == password_; }

bool ShellContent::folderListIsOnTop() const { return stack_->currentWidget() == folders_; }

void ShellContent::showPasswordScreen() {
    stack_->setCurrentWidget(password_);
    password_->passwordField()->setFocus();
    emit screenChanged();
}

void ShellContent::showFolderList() {
    stack_->setCurrentWidget(folders_);
    folders_->setFocus();
    emit screenChanged();
}

void ShellContent::setStatusText(const QString& text, const QColor& color) {
    status_->setText(text);
    QPalette palette = status_->palette();
    palette.setColor(QPalette::WindowText, color.isValid() ? color : this->palette().color(QPalette::PlaceholderText));
    status_->setPalette(palette);
}

QString ShellContent::statusText() const { return status_->text(); }

} // namespace qv::ui
