#include "ui/shell/UpgradeWindow.h"

#include <QApplication>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>

#include "app/DatabaseUpgrade.h"
#include "deniability/PDAssistantSetup.h"
#include "ui/shell/PasswordScreen.h"

namespace qv::ui {

UpgradeWindow::UpgradeWindow(DBMasterRef master, PasswordScreen* screen, QWidget* parent)
    : QDialog(parent), master_(std::move(master)), screen_(screen) {
    setWindowTitle(tr("Updating Database"));
    auto* layout = new QVBoxLayout(this);
    title_ = new QLabel(tr("Updating database. Please Wait..."), this);
    title_->setWordWrap(true);
    detail_ = new QLabel(this);
    detail_->setWordWrap(true);
    bar_ = new QProgressBar(this);
    bar_->setRange(0, 0);
    cancel_ = new QPushButton(tr("Cancel"), this);
    cancel_->setEnabled(false);
    layout->addWidget(title_);
    layout->addWidget(detail_);
    layout->addWidget(bar_);
    layout->addWidget(cancel_, 0, Qt::AlignRight);
    connect(cancel_, &QPushButton::clicked, this, &UpgradeWindow::reject);
    resize(420, sizeHint().height());
}

UpgradeWindow::~UpgradeWindow() = default;

void UpgradeWindow::start(std::function<void(DBMasterRef)> ended) {
    ended_ = std::move(ended);
    mark_ = QVHoldUpgradeMark();
    if (!mark_) {
        QMessageBox::information(parentWidget(), tr("Updating Database"),
                                 tr("Another Quillvane program is updating the database."));
        ended_(master_);
        deleteLater();
        return;
    }
    PDAssistantSetup setup;
    setup.setInitialSliderValue();
    setup.updateDistribution(false);
    assistant_ = std::make_shared<PDAssistant>(master_, *this, true);
    assistant_->fakeImageSizes = setup.folders;
    if (screen_) screen_->showMigrationUI();
    show();
    assistant_->start();
}

void UpgradeWindow::setLabels(const std::string& title, const std::string& detail) {
    title_->setText(QString::fromStdString(title));
    detail_->setText(QString::fromStdString(detail));
}

void UpgradeWindow::showProgress(double percent, bool determinate) {
    if (!determinate || percent <= 0) {
        bar_->setRange(0, 0);
    } else {
        bar_->setRange(0, 100);
        bar_->setValue(int(percent));
    }
    if (screen_) screen_->showMigrationProgress(determinate ? percent : 0);
}

void UpgradeWindow::setCancelEnabled(bool enabled) { cancel_->setEnabled(enabled); }

void UpgradeWindow::showSheet(const std::string& title, const std::string& text) {
    QMessageBox::warning(this, QString::fromStdString(title), QString::fromStdString(text));
}

void UpgradeWindow::showFatalErrorAndExit(const std::string& text) {
    QMessageBox::critical(this, tr(PDAssistant::kErrorTitle), QString::fromStdString(text));
    QApplication::exit(1);
}

void UpgradeWindow::reject() {
    if (assistant_ && cancel_->isEnabled()) assistant_->cancelMigration();
}

void UpgradeWindow::migrationDidEnd(const std::optional<QVError>&, bool) {
    if (screen_) screen_->hideMigrationUI();
    hide();
    const DBMasterRef master = assistant_ ? assistant_->master() : master_;
    mark_.reset();
    if (ended_) ended_(master);
    deleteLater();
}

} // namespace qv::ui
