#pragma once
// Changing the password of the Folder Set on show: the new password twice.
// Refused when it is empty, when the two differ, and when it already opens a
// Folder Set (this one or another): two sets under one password can't be.
// The check and the change each derive keys, so both run on a worker thread.
#include <QDialog>

#include "vault/DBMaster.h"

class QLabel;
class QLineEdit;
class QDialogButtonBox;

namespace qv::ui {

class ChangeMasterPassword : public QDialog {
    Q_OBJECT
public:
    ChangeMasterPassword(DBMasterRef master, DBSubdbRef subdb, QWidget* parent = nullptr);

    QLineEdit* newField() const { return new_; }
    QLineEdit* againField() const { return again_; }
    QLabel* errorLabel() const { return error_; }
    QDialogButtonBox* buttons() const { return buttons_; }
    bool isWorking() const { return working_; }

    // The refusal that needs no derivation, or an empty text.
    static QString quickRefusal(const QString& password, const QString& again);

public slots:
    void accept() override;

private:
    void refuse(const QString& text);
    void setWorking(bool working);

    DBMasterRef master_;
    DBSubdbRef subdb_;
    QLineEdit* new_;
    QLineEdit* again_;
    QLabel* error_;
    QDialogButtonBox* buttons_;
    bool working_ = false;
};

} // namespace qv::ui
