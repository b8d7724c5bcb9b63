#include "ui/assistant/QVBaseAssistant.h"

#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "ui/assistant/QVSetupAssistant.h"

namespace qv::ui {

QVBaseAssistant::QVBaseAssistant(QWidget* parent) : QWidget(parent) {}

void QVBaseAssistant::nextPressed() {
    if (controller_) controller_->runNextAssistant();
}

void QVBaseAssistant::prevPressed() {
    if (controller_) controller_->runPreviousAssistant();
}

void QVBaseAssistant::showSheet(QMessageBox::Icon icon, const QString& title, const QString& text,
                                const QString& defaultText, const QString& alternateText,
                                std::function<void(bool)> then) {
    QWidget* owner = controller_ ? static_cast<QWidget*>(controller_) : this;
    auto* box = new QMessageBox(icon, title, title, QMessageBox::NoButton, owner);
    box->setInformativeText(text);
    box->setWindowModality(Qt::WindowModal);
    box->setAttribute(Qt::WA_DeleteOnClose);
    QPushButton* defaultButton = box->addButton(defaultText, QMessageBox::AcceptRole);
    if (!alternateText.isEmpty()) box->addButton(alternateText, QMessageBox::RejectRole);
    box->setDefaultButton(defaultButton);
    box->setEscapeButton(defaultButton);
    sheet_ = box;
    connect(box, &QMessageBox::finished, this, [this, box, defaultButton, then = std::move(then)] {
        const bool chosen = box->clickedButton() == nullptr || box->clickedButton() == defaultButton;
        if (sheet_ == box) sheet_ = nullptr;
        if (then) then(chosen);
    });
    box->open();
}

QVBoxLayout* QVBaseAssistant::pageLayout(const QString& heading, const QString& explanation) {
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* title = new QLabel(heading, this);
    QFont font = title->font();
    font.setPointSizeF(font.pointSizeF() * 1.4);
    font.setBold(true);
    title->setFont(font);
    title->setWordWrap(true);
    layout->addWidget(title);
    if (!explanation.isEmpty()) {
        auto* text = new QLabel(explanation, this);
        text->setWordWrap(true);
        text->setTextFormat(Qt::PlainText);
        layout->addWidget(text);
    }
    layout->addSpacing(8);
    return layout;
}

} // namespace qv::ui
