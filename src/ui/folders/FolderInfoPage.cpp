#include "ui/folders/FolderInfoPage.h"

#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLineEdit>
#include <QVBoxLayout>

#include "toolkit/HumanReadable.h"
#include "toolkit/PathText.h"
#include "vault/Schemas.h"

namespace qv::ui {

namespace {

QLineEdit* readOnlyField(const QString& text, QWidget* parent) {
    auto* field = new QLineEdit(text, parent);
    field->setReadOnly(true);
    field->setCursorPosition(0);
    field->setMinimumWidth(field->fontMetrics().horizontalAdvance(QLatin1Char('M')) * 28);
    return field;
}

} // namespace

FolderInfoPage::FolderInfoPage(const QVRecordRef& face, QWidget* parent) : QDialog(parent), face_(face) {
    FolderRef folder{FolderFaceRef{face}.folder().as<QVRecord>()};
    const std::string path = folder ? QVFolderMountpointPath(folder.record) : std::string();
    DiskInfoRef diskinfo{folder ? folder.diskinfo().as<QVRecord>() : nullptr};
    const std::string image = diskinfo ? diskinfo.url().toURLPath() : std::string();
    const auto size = uint64_t(folder ? folder.folderSize().toInt() : 0);
    const auto capacity = uint64_t(diskinfo ? diskinfo.capacity().toInt() : 0);

    setWindowTitle(tr("%1 – Information").arg(QString::fromStdString(QVLastPathComponent(path))));
    auto* form = new QFormLayout;
    form->addRow(tr("Folder:"), readOnlyField(QString::fromStdString(path), this));
    form->addRow(tr("Disk image:"),
                 readOnlyField(image.empty() ? tr("None yet") : QString::fromStdString(image), this));
    form->addRow(tr("Size:"), readOnlyField(tr("%1 of %2 used")
                                                .arg(QString::fromStdString(bytesToHumanReadableString(size)),
                                                     QString::fromStdString(bytesToHumanReadableString(capacity))),
                                            this));
    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* column = new QVBoxLayout(this);
    column->addLayout(form);
    column->addWidget(buttons);
}

} // namespace qv::ui
