#pragma once
// The panel of the tray icon: a frameless window beside the icon (at the top
// right of the screen where the platform doesn't say where the icon is, as on
// Wayland). It closes when the application loses the focus, unless the anchor
// keeps it open; Escape closes it and lets the anchor go.
#include <QRect>
#include <QWidget>

class QToolButton;

namespace qv::ui {

class StatusPanel : public QWidget {
    Q_OBJECT
public:
    explicit StatusPanel(QWidget* content, QWidget* parent = nullptr);

    bool isAnchored() const;
    void setAnchored(bool anchored);
    // Shows the panel beside `iconGeometry` (an invalid rectangle: none known).
    void showBeside(const QRect& iconGeometry);
    // Where a panel of `size` goes on a screen whose free area is `available`.
    static QPoint placement(const QSize& size, const QRect& iconGeometry, const QRect& available);
    // The anchor's look follows the anchor, and is plain while a dialog is up.
    void setModalShown(bool shown);

protected:
    void changeEvent(QEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

signals:
    void visibilityChanged(bool visible);

private:
    void updateAnchorIcon();

    QToolButton* anchor_;
    bool modalShown_ = false;
};

} // namespace qv::ui
