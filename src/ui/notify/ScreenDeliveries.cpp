#include "ui/notify/ScreenDeliveries.h"

#include <QApplication>
#include <QMessageBox>
#include <QPushButton>

#include "disk/RescueFrontEnd.h"
#include "notify/AlertPanel.h"
#include "ui/notify/PanelDelivery.h"
#include "ui/notify/RescueScreens.h"
#include "ui/notify/TrayDelivery.h"

namespace qv::ui {

namespace {

// The window a dialog belongs to: the application's active one, if any.
QWidget* dialogParent() { return QApplication::activeWindow(); }

} // namespace

bool askYesNo(const std::string& message, bool defaultButton) {
    QMessageBox box(QMessageBox::Question, QApplication::translate("qv::ui", "Alert"), QString::fromStdString(message),
                    QMessageBox::NoButton, dialogParent());
    QPushButton* yes = box.addButton(QApplication::translate("qv::ui", "Yes"), QMessageBox::YesRole);
    QPushButton* no = box.addButton(QApplication::translate("qv::ui", "No"), QMessageBox::NoRole);
    box.setDefaultButton(defaultButton ? yes : no);
    box.setEscapeButton(no);
    box.raise();
    box.activateWindow();
    box.exec();
    return box.clickedButton() == yes;
}

void showAlertPanel(const std::string& title, const std::string& text) {
    auto* box = new QMessageBox(QMessageBox::Warning, QString::fromStdString(title), QString::fromStdString(text),
                                QMessageBox::Ok, dialogParent());
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setText(QString::fromStdString(title));
    box->setInformativeText(QString::fromStdString(text));
    box->show();
    box->raise();
    box->activateWindow();
}

void installScreenDeliveries(QVNotificationCenter& centre, QSystemTrayIcon* trayOrNull) {
    auto panels = std::make_shared<PanelDelivery>(centre);
    centre.setDelivery(QVNotificationWayBuiltIn, panels);
    if (trayOrNull)
        centre.setDelivery(QVNotificationWayTray, std::make_shared<TrayDelivery>(trayOrNull, panels));
    else
        centre.setDelivery(QVNotificationWayTray, panels);
    centre.setYesNoHandler(askYesNo);
}

void installScreenDeliveries(QSystemTrayIcon* trayOrNull) {
    installScreenDeliveries(QVNotificationCenter::defaultCenter(), trayOrNull);
    QVSetAlertPanelHandler(showAlertPanel);
    QVSetClipboardWriter([](const std::string& text) { return copyPasswordToClipboard(text); });
    QVSetSavePanel([](const std::string& proposedPath) { return askRescueDestination(proposedPath); });
    QVSetSecretAlert([](const std::string& title, const std::string& text) { showPasswordPanel(title, text); });
}

} // namespace qv::ui
