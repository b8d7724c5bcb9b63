#include "ui/assistant/PasswordAssistant.h"

#include <QApplication>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QMessageBox>
#include <QVBoxLayout>
#include <cstdlib>

#include "toolkit/Log.h"
#include "ui/assistant/MatchMark.h"
#include "ui/assistant/PasswordStrength.h"
#include "ui/assistant/QVSetupAssistant.h"
#include "ui/shell/OffMainThread.h"
#include "ui/shell/SecretText.h"

namespace qv::ui {

PasswordAssistant::PasswordAssistant(QWidget* parent) : QVBaseAssistant(parent) {
    QVBoxLayout* layout = pageLayout(
        tr("Choose a Password"),
        tr("This password opens your Folder Set. Quillvane keeps no copy of it and cannot recover it: if you "
           "forget it, your encrypted folders are lost.\n\n"
           "A secret phrase with a little punctuation makes an excellent password."));

    password_ = new QLineEdit(this);
    password_->setEchoMode(QLineEdit::Password);
    password_->setAccessibleName(tr("Password"));
    repeat_ = new QLineEdit(this);
    repeat_->setEchoMode(QLineEdit::Password);
    repeat_->setAccessibleName(tr("Repeat the password"));

    strengthLevel_ = new QProgressBar(this);
    strengthLevel_->setRange(0, 100);
    strengthLevel_->setTextVisible(false);
    strengthLevel_->setMaximumHeight(fontMetrics().height() / 2 + 2);
    strengthLevel_->setAccessibleName(tr("Password strength"));
    strengthText_ = new QLabel(this);
    strengthText_->setMinimumWidth(fontMetrics().horizontalAdvance(QStringLiteral("Strong")) * 3 / 2);
    auto* strengthRow = new QHBoxLayout();
    strengthRow->addWidget(strengthLevel_, 1);
    strengthRow->addWidget(strengthText_);

    match_ = new MatchMark(this);
    // The mark's place is kept while it is hidden, so the field doesn't jump.
    QSizePolicy keep = match_->sizePolicy();
    keep.setRetainSizeWhenHidden(true);
    match_->setSizePolicy(keep);

    // Labels | fields | the match mark, so that both fields line up.
    auto* form = new QGridLayout();
    form->setColumnStretch(1, 1);
    auto addLabel = [this, form](int row, const QString& text, QWidget* buddy) {
        auto* label = new QLabel(text, this);
        label->setBuddy(buddy);
        form->addWidget(label, row, 0);
    };
    addLabel(0, tr("&Password:"), password_);
    form->addWidget(password_, 0, 1);
    addLabel(1, tr("&Verify:"), repeat_);
    form->addWidget(repeat_, 1, 1);
    form->addWidget(match_, 1, 2);
    addLabel(2, tr("Strength:"), nullptr);
    form->addLayout(strengthRow, 2, 1, 1, 2);
    layout->addLayout(form);
    layout->addStretch(1);
    setTabOrder(password_, repeat_);

    connect(password_, &QLineEdit::textChanged, this, &PasswordAssistant::passwordChanged);
    connect(repeat_, &QLineEdit::textChanged, this, &PasswordAssistant::passwordChanged);
    connect(password_, &QLineEdit::returnPressed, repeat_, qOverload<>(&QWidget::setFocus));
    connect(repeat_, &QLineEdit::returnPressed, this, &PasswordAssistant::nextPressed);
}

QStringList PasswordAssistant::orderedSteps() const { return {tr("Password")}; }

QColor PasswordAssistant::levelColor(int score) {
    switch (QVPasswordStrength::levelOf(score)) {
    case QVPasswordStrength::Level::Weak:
        return QColor(0xd0, 0x31, 0x2d);
    case QVPasswordStrength::Level::Good:
        return QColor(0xc9, 0x8a, 0x00);
    case QVPasswordStrength::Level::Strong:
        return QColor(0x2e, 0x9d, 0x3a);
    }
    return {};
}

void PasswordAssistant::start() {
    if (cancellable_ && !cancel_) {
        cancel_ = new QPushButton(tr("Cancel"), controller());
        controller()->addButtonBeforeNext(cancel_);
        connect(cancel_, &QPushButton::clicked, this, &PasswordAssistant::cancelPressed);
    }
    passwordChanged();
    password_->setFocus();
}

bool PasswordAssistant::matchShown() const { return !match_->isHidden(); }
bool PasswordAssistant::matchSaysEqual() const { return match_->isMatch(); }

void PasswordAssistant::passwordChanged() {
    const QString first = password_->text();
    const int score = QVPasswordStrength::score(first);
    strengthLevel_->setValue(score);
    strengthText_->setVisible(!first.isEmpty());
    strengthText_->setText(QVPasswordStrength::levelText(QVPasswordStrength::levelOf(score)));
    QPalette palette = strengthText_->palette();
    palette.setColor(QPalette::WindowText, levelColor(score));
    strengthText_->setPalette(palette);
    match_->setVisible(!repeat_->text().isEmpty());
    match_->setMatch(first == repeat_->text());
}

void PasswordAssistant::stayOnPassword() {
    password_->setFocus();
    password_->selectAll();
}

void PasswordAssistant::nextPressed() {
    if (password_->text().isEmpty()) return;
    if (password_->text() != repeat_->text()) {
        showSheet(QMessageBox::Warning, tr("Passwords do not match"), tr("Please make sure that the passwords match."),
                  tr("OK"), {}, [this](bool) { stayOnPassword(); });
        return;
    }
    const int score = QVPasswordStrength::score(password_->text());
    auto stayOrCreate = [this](bool defaultChosen) {
        if (defaultChosen)
            stayOnPassword();
        else
            createSetAndGoOn();
    };
    if (score <= QVPasswordStrength::kWeakAtMost) {
        showSheet(QMessageBox::Warning, tr("Weak Password!"), tr("Are you really sure you want to use this password?"),
                  tr("No"), tr("Yes"), stayOrCreate);
        return;
    }
    if (score < QVPasswordStrength::kAcceptedFrom) {
        showSheet(QMessageBox::Question, tr("Can you do better?"),
                  tr("Strong passwords don't have to be complicated (hint: secret phrases with minor punctuation make "
                     "excellent passwords)."),
                  tr("I'll do better"), tr("Good enough!"), stayOrCreate);
        return;
    }
    createSetAndGoOn();
}

// What the worker found: the password already opens a set, or the new set was
// added and saved, or the error of the step that failed.
struct FirstSetOutcome {
    bool inUse = false;
    bool added = false;
    bool saved = false;
    QVError error;
};

namespace {

FirstSetOutcome makeFirstSet(const DBMasterRef& master, const std::string& pass) {
    FirstSetOutcome outcome;
    outcome.inUse = master->subDBCount() > 0 && master->hasSubDbWithPassword(pass);
    if (outcome.inUse) return outcome;
    DBSubdbRef subdb = DBSubdb::subdbWithFolders({}, pass);
    outcome.added = master->addSubDB(subdb, false, &outcome.error);
    outcome.saved = outcome.added && subdb->save(&outcome.error);
    return outcome;
}

} // namespace

void PasswordAssistant::setWorking(bool working) {
    working_ = working;
    password_->setEnabled(!working);
    repeat_->setEnabled(!working);
    controller()->nextButton()->setEnabled(!working);
    controller()->prevButton()->setEnabled(!working);
    if (cancel_) cancel_->setEnabled(!working);
    if (working)
        QApplication::setOverrideCursor(Qt::WaitCursor);
    else
        QApplication::restoreOverrideCursor();
}

void PasswordAssistant::createSetAndGoOn() {
    if (working_) return;
    DBMasterRef master = controller()->database();
    if (!master) fail(tr("create"), "There is no master database.");
    // Both the check and the new set derive keys, a second or more each: on a
    // worker, so that the window keeps drawing.
    setWorking(true);
    auto secret = std::make_shared<SecretText>(password_->text());
    runOffMainThread<std::shared_ptr<FirstSetOutcome>>(
        this,
        [master, secret] {
            auto outcome = std::make_shared<FirstSetOutcome>(makeFirstSet(master, secret->text()));
            secret->wipe();
            return outcome;
        },
        [this](const std::shared_ptr<FirstSetOutcome>& outcome) { firstSetMade(*outcome); });
}

void PasswordAssistant::firstSetMade(const FirstSetOutcome& outcome) {
    setWorking(false);
    if (outcome.inUse) {
        showSheet(QMessageBox::Warning, tr("Password in use"),
                  tr("Quillvane found an existing SubDatabase with the same password. Please change your password "
                     "to create a new SubDatabase"),
                  tr("Close"), {}, [this](bool) { stayOnPassword(); });
        return;
    }
    if (!outcome.added) fail(tr("create"), outcome.error.description);
    if (!outcome.saved) fail(tr("save"), outcome.error.description);
    controller()->setObject(QVSetupAssistant::kSetCreatedKey, true);
    password_->clear();
    repeat_->clear();
    QVBaseAssistant::nextPressed();
}

void PasswordAssistant::fail(const QString& verb, const std::string& description) {
    QV_LOG_ERROR("the first Folder Set failed: " + description);
    QMessageBox box(QMessageBox::Critical, tr("Failed to %1 database").arg(verb), tr("Failed to %1 database").arg(verb),
                    QMessageBox::NoButton, controller());
    box.setInformativeText(QString::fromStdString(description));
    box.addButton(tr("Quit"), QMessageBox::AcceptRole);
    box.exec();
    // Nothing can work without a Folder Set.
    std::exit(EXIT_FAILURE);
}

void PasswordAssistant::cancelPressed() {
    if (QMessageBox* open = sheet()) open->reject();
    password_->clear();
    repeat_->clear();
    QVBaseAssistant::nextPressed();
}

} // namespace qv::ui
