// Stand-ins until the folder list, the notification panels and the set-up
// assistant arrive: each body here is replaced by a call of the real screen.
#include "ui/shell/Placeholders.h"

#include <QLabel>
#include <QVBoxLayout>
#include <QWidget>

namespace qv::ui {

namespace {

QWidget* placeholder(QWidget* parent, const QString& text) {
    auto* widget = new QWidget(parent);
    auto* layout = new QVBoxLayout(widget);
    auto* label = new QLabel(text, widget);
    label->setAlignment(Qt::AlignCenter);
    label->setWordWrap(true);
    layout->addWidget(label);
    return widget;
}

} // namespace

// PLACEHOLDER: becomes `return new FolderListScreen(parent);` (ui/folders/FolderListScreen.h).
QWidget* makeFolderListScreen(QWidget* parent) { return placeholder(parent, QWidget::tr("Your folders appear here.")); }

// PLACEHOLDER: becomes QVSetupAssistant::showFirstRun(parent) with its finished
// signal connected to `finished` (ui/assistant/QVSetupAssistant.h).
QWidget* showSetupAssistant(QWidget* parent, std::function<void(bool setCreated)> finished) {
    (void)finished;
    QWidget* widget = placeholder(parent, QWidget::tr("Welcome to Quillvane. Create your first Folder Set with "
                                                      "\"qv set create\", then start Quillvane again."));
    widget->setWindowFlag(Qt::Window);
    widget->setAttribute(Qt::WA_DeleteOnClose);
    widget->resize(420, 240);
    widget->show();
    return widget;
}

// PLACEHOLDER: becomes installScreenDeliveries(trayOrNull) (ui/notify/ScreenDeliveries.h).
void installNotificationDeliveries(QSystemTrayIcon* trayOrNull) { (void)trayOrNull; }

} // namespace qv::ui
