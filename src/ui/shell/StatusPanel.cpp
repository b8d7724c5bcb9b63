#include "ui/shell/StatusPanel.h"

#include <QApplication>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QPainter>
#include <QScreen>
#include <QToolButton>
#include <QVBoxLayout>

#include "ui/shell/ShellIcons.h"

namespace qv::ui {

namespace {
constexpr int kGap = 4;
} // namespace

StatusPanel::StatusPanel(QWidget* content, QWidget* parent)
    : QWidget(parent, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint) {
    setWindowTitle(tr("Quillvane"));
    setAttribute(Qt::WA_DeleteOnClose, false);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(1, 1, 1, 1);
    layout->setSpacing(0);
    auto* bar = new QHBoxLayout;
    bar->setContentsMargins(6, 4, 6, 0);
    bar->addStretch();
    anchor_ = new QToolButton(this);
    anchor_->setCheckable(true);
    anchor_->setAutoRaise(true);
    anchor_->setToolTip(tr("Keep this panel open"));
    anchor_->setAccessibleName(tr("Keep open"));
    connect(anchor_, &QToolButton::toggled, this, [this] { updateAnchorIcon(); });
    bar->addWidget(anchor_);
    layout->addLayout(bar);
    content->setParent(this);
    layout->addWidget(content, 1);
    resize(360, 480);
    updateAnchorIcon();
}

bool StatusPanel::isAnchored() const { return anchor_->isChecked(); }

void StatusPanel::setAnchored(bool anchored) { anchor_->setChecked(anchored); }

void StatusPanel::setModalShown(bool shown) {
    modalShown_ = shown;
    updateAnchorIcon();
}

void StatusPanel::updateAnchorIcon() {
    anchor_->setIcon(shellIcon(isAnchored() && !modalShown_ ? ShellIcon::AnchorOn : ShellIcon::AnchorOff));
}

QPoint StatusPanel::placement(const QSize& size, const QRect& iconGeometry, const QRect& available) {
    QPoint at(available.right() - size.width() - kGap + 1, available.top() + kGap);
    if (iconGeometry.isValid() && !iconGeometry.isEmpty()) {
        // Centred on the icon, below it when the icon is in the upper half, above it otherwise.
        at.setX(iconGeometry.center().x() - size.width() / 2);
        if (iconGeometry.center().y() < available.center().y())
            at.setY(iconGeometry.bottom() + kGap + 1);
        else
            at.setY(iconGeometry.top() - kGap - size.height());
    }
    at.setX(std::clamp(at.x(), available.left(), std::max(available.left(), available.right() - size.width() + 1)));
    at.setY(std::clamp(at.y(), available.top(), std::max(available.top(), available.bottom() - size.height() + 1)));
    return at;
}

void StatusPanel::showBeside(const QRect& iconGeometry) {
    QScreen* screen = iconGeometry.isValid() ? QGuiApplication::screenAt(iconGeometry.center()) : nullptr;
    if (!screen) screen = QGuiApplication::primaryScreen();
    if (screen) move(placement(size(), iconGeometry, screen->availableGeometry()));
    show();
    raise();
    activateWindow();
    emit visibilityChanged(true);
}

void StatusPanel::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::ActivationChange && !isActiveWindow() && !isAnchored() &&
        !QApplication::activeModalWidget() && !QApplication::activeWindow())
        hide();
}

void StatusPanel::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Escape) {
        setAnchored(false);
        hide();
        return;
    }
    QWidget::keyPressEvent(event);
}

void StatusPanel::paintEvent(QPaintEvent* event) {
    QWidget::paintEvent(event);
    // Without a frame of its own the panel needs an edge against what lies behind it.
    QPainter painter(this);
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawRect(rect().adjusted(0, 0, -1, -1));
}

void StatusPanel::hideEvent(QHideEvent* event) {
    QWidget::hideEvent(event);
    emit visibilityChanged(false);
}

} // namespace qv::ui
