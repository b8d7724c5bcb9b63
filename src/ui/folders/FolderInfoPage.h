#pragma once
// A plain read-only page of one folder: its path, its disk image and its size
// line. It stands in for the folder details screen until that screen exists.
#include <QDialog>

#include "vault/QVRecord.h"

namespace qv::ui {

class FolderInfoPage : public QDialog {
    Q_OBJECT
public:
    FolderInfoPage(const QVRecordRef& face, QWidget* parent = nullptr);
    const QVRecordRef& face() const { return face_; }

private:
    QVRecordRef face_;
};

} // namespace qv::ui
