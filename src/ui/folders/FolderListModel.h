#pragma once
// The rows of the folder list as Qt's views read them: the faces the folder
// list arranges (its search filter applied), one row each. The model follows
// the list (its listeners) and every face on show (their presentation fields,
// which tasks change from any thread): a change reaches the row through a
// queued call on the GUI thread. Rows dragged within the view are moved
// through the list, which saves their new positions.
#include <QAbstractListModel>
#include <QTimer>
#include <memory>
#include <vector>

#include "vault/QVRecord.h"

namespace qv::ui {

class FolderListModel : public QAbstractListModel {
    Q_OBJECT
public:
    enum Role {
        StatusTextRole = Qt::UserRole + 1, // QString
        StatusIsErrorRole,                 // bool: the status shows in the error colour
        StatusColorRole,                   // QColor: the face's status colour as the core set it
        ProgressRole,                      // double, 0..1
        IndeterminateRole,                 // bool
        ActionIconRole,                    // QString: "Info", "Cancel", "Back"
        ActionIconPressedRole,             // QString: its pressed image
        LockedRole,                        // bool
        BusyRole,                          // bool: a task runs on the folder
        PathRole,                          // QString: the folder's path
    };
    // The type of a row drag inside the view.
    static constexpr const char* kRowsMimeType = "application/x-quillvane-folder-rows";

    explicit FolderListModel(QObject* parent = nullptr);
    ~FolderListModel() override;

    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;

    Qt::DropActions supportedDropActions() const override { return Qt::MoveAction; }
    Qt::DropActions supportedDragActions() const override { return Qt::MoveAction; }
    QStringList mimeTypes() const override;
    QMimeData* mimeData(const QModelIndexList& indexes) const override;
    bool canDropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                         const QModelIndex& parent) const override;
    bool dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                      const QModelIndex& parent) override;

    // The face of a row, or null.
    QVRecordRef faceAt(int row) const;
    // The row of a face, or -1.
    int rowOf(const QVRecord* face) const;

signals:
    // The rows were read anew from the list (after a reset).
    void rowsReloaded();

private:
    class FaceObserver;
    void reload();
    void faceChanged(const QVRecord* face);
    void observe(bool on);
    void animateWhileBusy();

    std::vector<QVRecordRef> rows_;
    std::shared_ptr<FaceObserver> observer_;
    size_t listener_ = 0;
    // Repaints the rows whose bar shows work of unknown length.
    QTimer* animation_;
};

} // namespace qv::ui
