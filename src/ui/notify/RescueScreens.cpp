#include "ui/notify/RescueScreens.h"

#include <QApplication>
#include <QClipboard>
#include <QFileDialog>
#include <QMessageBox>

namespace qv::ui {

namespace {

QWidget* parentOrActive(QWidget* parent) { return parent ? parent : QApplication::activeWindow(); }

} // namespace

bool copyPasswordToClipboard(const std::string& text) {
    QClipboard* clipboard = QGuiApplication::clipboard();
    if (!clipboard) return false;
    const QString value = QString::fromStdString(text);
    if (value.isEmpty()) {
        clipboard->clear();
        return clipboard->text().isEmpty();
    }
    clipboard->setText(value);
    return clipboard->text() == value;
}

std::optional<std::string> askRescueDestination(const std::string& proposedPath, QWidget* parent) {
    QFileDialog dialog(parentOrActive(parent), QApplication::translate("qv::ui", "Save the Encrypted Disk Image"));
    dialog.setAcceptMode(QFileDialog::AcceptSave);
    dialog.setFileMode(QFileDialog::AnyFile);
    dialog.selectFile(QString::fromStdString(proposedPath));
    if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
    return dialog.selectedFiles().first().toStdString();
}

void showPasswordPanel(const std::string& title, const std::string& text, QWidget* parent) {
    QMessageBox box(QMessageBox::Critical, QString::fromStdString(title), QString::fromStdString(title),
                    QMessageBox::Ok, parentOrActive(parent));
    box.setInformativeText(QString::fromStdString(text));
    box.setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    box.raise();
    box.activateWindow();
    box.exec();
}

} // namespace qv::ui
