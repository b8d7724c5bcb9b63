#include "ui/shell/PasswordScreen.h"

#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>
#include <filesystem>

#include "app/FolderList.h"
#include "notify/QVNotificationCenter.h"
#include "ui/shell/OffMainThread.h"
#include "ui/shell/SecretText.h"
#include "ui/shell/ShellIcons.h"

namespace qv::ui {

PasswordScreen::PasswordScreen(QWidget* parent) : QWidget(parent) {
    auto* layout = new QVBoxLayout(this);
    layout->addStretch();
    auto* picture = new QLabel(this);
    picture->setPixmap(shellIcon(ShellIcon::Application).pixmap(QSize(72, 72)));
    picture->setAlignment(Qt::AlignCenter);
    layout->addWidget(picture);
    auto* title = new QLabel(tr("Enter your password"), this);
    title->setAlignment(Qt::AlignCenter);
    QFont font = title->font();
    font.setPointSizeF(font.pointSizeF() * 1.3);
    title->setFont(font);
    layout->addWidget(title);

    password_ = new QLineEdit(this);
    password_->setEchoMode(QLineEdit::Password);
    password_->setPlaceholderText(tr("Password"));
    password_->setAccessibleName(tr("Password"));
    layout->addWidget(password_);

    error_ = new QLabel(tr("Incorrect password. Please try again."), this);
    error_->setAlignment(Qt::AlignCenter);
    error_->setWordWrap(true);
    error_->setStyleSheet(QStringLiteral("color: #cc1021;"));
    error_->hide();
    layout->addWidget(error_);

    busy_ = new QProgressBar(this);
    busy_->setRange(0, 0);
    busy_->setTextVisible(false);
    busy_->hide();
    layout->addWidget(busy_);

    migration_ = new QProgressBar(this);
    migration_->setRange(0, 100);
    migration_->hide();
    layout->addWidget(migration_);

    unlock_ = new QPushButton(tr("&Unlock"), this);
    unlock_->setDefault(true);
    layout->addWidget(unlock_, 0, Qt::AlignHCenter);
    layout->addStretch();

    connect(unlock_, &QPushButton::clicked, this, &PasswordScreen::unlock);
    connect(password_, &QLineEdit::returnPressed, this, &PasswordScreen::unlock);
}

void PasswordScreen::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (!working_) {
        busy_->hide();
        unlock_->setEnabled(true);
    }
    password_->setFocus();
}

void PasswordScreen::setWorking(bool working) {
    working_ = working;
    busy_->setVisible(working);
    unlock_->setEnabled(!working);
    password_->setReadOnly(working);
}

void PasswordScreen::unlock() {
    if (working_ || password_->text().isEmpty()) return;
    const DBMasterRef master = masterSource_ ? masterSource_() : nullptr;
    std::error_code ec;
    if (!master || !std::filesystem::exists(master->databaseURL(), ec)) {
        QVNotificationCenter::defaultCenter().postAlert(tr("Error loading database").toStdString(), true);
        return;
    }
    setWorking(true);
    error_->hide();
    auto secret = std::make_shared<SecretText>(password_->text());
    using Answer = std::pair<DBSubdbRef, QVError>;
    runOffMainThread<Answer>(
        this,
        [master, secret] {
            Answer answer;
            answer.first = master->getSubDBWithPassword(secret->text(), &answer.second);
            secret->wipe();
            return answer;
        },
        [this](const Answer& answer) { unlockSubdb(answer.first, answer.second); },
        [master](const Answer& answer) {
            if (answer.first) master->returnSubDB(answer.first);
        });
}

void PasswordScreen::unlockSubdb(const DBSubdbRef& subdb, const QVError& error) {
    setWorking(false);
    if (subdb) {
        error_->hide();
        password_->clear();
        FolderList::singleton().loadSubdb(subdb);
        emit unlocked(!subdb->folders().empty());
    } else if (error.empty()) {
        error_->show();
        password_->selectAll();
        password_->setFocus();
    } else {
        auto* box = new QMessageBox(QMessageBox::Warning, tr("Error loading database"),
                                    QString::fromStdString(error.description), QMessageBox::Ok, window());
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->open();
    }
}

void PasswordScreen::showMigrationUI() {
    migration_->show();
    showMigrationProgress(0);
    error_->setText(tr("Updating database. Please Wait..."));
    error_->show();
    password_->hide();
    unlock_->hide();
}

void PasswordScreen::hideMigrationUI() {
    migration_->hide();
    error_->setText(tr("Incorrect password. Please try again."));
    error_->hide();
    password_->show();
    unlock_->show();
    password_->setFocus();
}

void PasswordScreen::showMigrationProgress(double percent) {
    if (percent <= 0)
        migration_->setRange(0, 0);
    else {
        migration_->setRange(0, 100);
        migration_->setValue(int(percent));
    }
}

} // namespace qv::ui
