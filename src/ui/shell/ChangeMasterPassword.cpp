#include "ui/shell/ChangeMasterPassword.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include "ui/shell/OffMainThread.h"
#include "ui/shell/SecretText.h"

namespace qv::ui {

ChangeMasterPassword::ChangeMasterPassword(DBMasterRef master, DBSubdbRef subdb, QWidget* parent)
    : QDialog(parent), master_(std::move(master)), subdb_(std::move(subdb)) {
    setWindowTitle(tr("Change Password"));
    auto* layout = new QVBoxLayout(this);
    auto* form = new QFormLayout;
    new_ = new QLineEdit(this);
    new_->setEchoMode(QLineEdit::Password);
    again_ = new QLineEdit(this);
    again_->setEchoMode(QLineEdit::Password);
    form->addRow(tr("&New password:"), new_);
    form->addRow(tr("&Again:"), again_);
    layout->addLayout(form);
    error_ = new QLabel(this);
    error_->setWordWrap(true);
    error_->setStyleSheet(QStringLiteral("color: #cc1021;"));
    error_->hide();
    layout->addWidget(error_);
    buttons_ = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    buttons_->button(QDialogButtonBox::Ok)->setText(tr("&Change"));
    layout->addWidget(buttons_);
    connect(buttons_, &QDialogButtonBox::accepted, this, &ChangeMasterPassword::accept);
    connect(buttons_, &QDialogButtonBox::rejected, this, &ChangeMasterPassword::reject);
}

QString ChangeMasterPassword::quickRefusal(const QString& password, const QString& again) {
    if (password.isEmpty()) return tr("The password can't be empty.");
    if (password != again) return tr("The two passwords differ.");
    return {};
}

void ChangeMasterPassword::refuse(const QString& text) {
    error_->setText(text);
    error_->show();
    new_->setFocus();
    new_->selectAll();
}

void ChangeMasterPassword::setWorking(bool working) {
    working_ = working;
    buttons_->setEnabled(!working);
    new_->setReadOnly(working);
    again_->setReadOnly(working);
}

void ChangeMasterPassword::accept() {
    if (working_) return;
    const QString refusal = quickRefusal(new_->text(), again_->text());
    if (!refusal.isEmpty()) return refuse(refusal);
    if (!master_ || !subdb_) return refuse(tr("No Folder Set is open."));
    setWorking(true);
    error_->hide();
    auto secret = std::make_shared<SecretText>(new_->text());
    // Empty: changed; else why not.
    runOffMainThread<QString>(
        this,
        [master = master_, subdb = subdb_, secret] {
            QString refusal;
            QVError error;
            if (master->hasSubDbWithPassword(secret->text()))
                refusal = tr("This password is in use already. Please choose another one.");
            else if (!master->changePasswordOnSubdb(subdb, secret->text(), &error))
                refusal = QString::fromStdString(error.description);
            secret->wipe();
            return refusal;
        },
        [this](const QString& refusal) {
            setWorking(false);
            if (refusal.isEmpty()) return QDialog::accept();
            refuse(refusal);
        });
}

} // namespace qv::ui
