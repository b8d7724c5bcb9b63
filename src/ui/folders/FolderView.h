#pragma once
// A row of the folder list: the folder's picture and name, the progress bar,
// the status line in its colour, the action control (Info, Cancel or Back, with
// its pressed image) and the lock control that shows `locked`. The row only
// draws and reports clicks; the screen decides what they do.
#include <QPersistentModelIndex>
#include <QStyledItemDelegate>

namespace qv::ui {

class FolderView : public QStyledItemDelegate {
    Q_OBJECT
public:
    // Where each part of a row lies.
    struct Layout {
        QRect icon, name, bar, status, action, lock;
    };
    enum class Part { None, Action, Lock };

    explicit FolderView(QObject* parent = nullptr);

    static Layout layout(const QRect& row, const QFont& font);
    static Part partAt(const QRect& row, const QFont& font, const QPoint& point);
    // The status colour as it reads on `background`: the same hue, its lightness
    // mirrored when ink and background are both dark or both light.
    static QColor readableOn(QColor ink, const QColor& background);

    void paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    bool editorEvent(QEvent* event, QAbstractItemModel* model, const QStyleOptionViewItem& option,
                     const QModelIndex& index) override;
    bool helpEvent(QHelpEvent* event, QAbstractItemView* view, const QStyleOptionViewItem& option,
                   const QModelIndex& index) override;

signals:
    void actionClicked(const QModelIndex& index);
    void lockClicked(const QModelIndex& index, bool shiftHeld);
    // A double click on the row outside its controls.
    void rowDoubleClicked(const QModelIndex& index);

private:
    void drawBar(QPainter* painter, const QRect& rect, const QModelIndex& index, const QPalette& palette,
                 bool selected) const;
    void drawPicture(QPainter* painter, const QRect& rect, const QString& name, const QColor& ink,
                     const QColor& paper) const;

    QPersistentModelIndex pressedIndex_;
    Part pressedPart_ = Part::None;
};

} // namespace qv::ui
