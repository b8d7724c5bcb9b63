#include "ui/folders/FolderPrompts.h"

#include <QMessageBox>
#include <QPointer>
#include <QTimer>

#include "notify/QVNotificationCenter.h"

namespace qv::ui {

void showFolderRefusal(QWidget* parent, const QString& title, const QString& text) {
    // A moment later, so that the alert stays out of the drop's own events and
    // the drag source is not held while the user reads it.
    QTimer::singleShot(kRefusalDelayMs, [guarded = QPointer<QWidget>(parent), title, text] {
        QMessageBox box(QMessageBox::Warning, title, text, QMessageBox::Ok, guarded);
        box.setObjectName(QStringLiteral("folderRefusal"));
        box.exec();
    });
}

bool askFolderYesNo(QWidget* parent, const QString& title, const QString& text, bool defaultYes) {
    QMessageBox box(QMessageBox::Question, title, text, QMessageBox::Yes | QMessageBox::No, parent);
    box.setObjectName(QStringLiteral("folderQuestion"));
    box.setDefaultButton(defaultYes ? QMessageBox::Yes : QMessageBox::No);
    box.setEscapeButton(QMessageBox::No);
    return box.exec() == QMessageBox::Yes;
}

FolderQuestions::FolderQuestions(QWidget* parent) {
    auto& centre = QVNotificationCenter::defaultCenter();
    if (centre.yesNoHandler()) return;
    installed_ = true;
    centre.setYesNoHandler([guarded = QPointer<QWidget>(parent)](const std::string& message, bool defaultButton) {
        // The core asks with "title\n\ntext".
        const QString all = QString::fromStdString(message);
        const qsizetype split = all.indexOf(QLatin1String("\n\n"));
        const QString title = split < 0 ? QString() : all.left(split);
        const QString text = split < 0 ? all : all.mid(split + 2);
        return askFolderYesNo(guarded, title, text, defaultButton);
    });
}

FolderQuestions::~FolderQuestions() {
    if (installed_) QVNotificationCenter::defaultCenter().setYesNoHandler(nullptr);
}

} // namespace qv::ui
