#include "ui/notify/NotificationPanel.h"

#include <QEnterEvent>
#include <QGraphicsDropShadowEffect>
#include <QLabel>
#include <QPainter>
#include <QProgressBar>
#include <QPropertyAnimation>
#include <QVBoxLayout>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

#include "notify/QVNotificationCenter.h"

namespace qv::ui {

namespace {

double now() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

// The text of a panel stands out on any background colour by a black shadow.
QLabel* shadowedLabel(const QString& text, const QColor& foreground, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setTextFormat(Qt::PlainText);
    label->setWordWrap(true);
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, foreground);
    label->setPalette(palette);
    auto* shadow = new QGraphicsDropShadowEffect(label);
    shadow->setColor(Qt::black);
    shadow->setOffset(0, 1);
    shadow->setBlurRadius(2);
    label->setGraphicsEffect(shadow);
    return label;
}

int milliseconds(double seconds) {
    return static_cast<int>(
        std::lround(std::clamp(seconds, 0.0, double(std::numeric_limits<int>::max() / 1000)) * 1000.0));
}

} // namespace

QVNotificationPanel::QVNotificationPanel(QVNotificationRef notification, QVNotificationCenter& centre,
                                         const QColor& background, const QColor& foreground)
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus |
                           Qt::BypassWindowManagerHint),
      notification_(std::move(notification)), centre_(centre), background_(background),
      death_(std::numeric_limits<double>::infinity()) {
    setAttribute(Qt::WA_ShowWithoutActivating);
    setAttribute(Qt::WA_DeleteOnClose);
    setFocusPolicy(Qt::NoFocus);
    setWindowOpacity(0.0);
    setAccessibleName(typeTitle(notification_->type()));

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(12, 10, 12, 12);
    layout->setSpacing(4);
    title_ = shadowedLabel(typeTitle(notification_->type()), foreground, this);
    QFont bold = title_->font();
    bold.setBold(true);
    title_->setFont(bold);
    message_ = shadowedLabel(QString::fromStdString(notification_->msg()), foreground, this);
    layout->addWidget(title_);
    layout->addWidget(message_);
    if (notification_->type() == QVNotificationProgress) {
        bar_ = new QProgressBar(this);
        bar_->setTextVisible(false);
        bar_->setMaximumHeight(fontMetrics().height() * 2 / 3);
        bar_->setFocusPolicy(Qt::NoFocus);
        layout->addWidget(bar_);
        updateBar();
    }
    setFixedSize(kPanelWidth, layout->hasHeightForWidth() ? layout->totalHeightForWidth(kPanelWidth)
                                                          : layout->totalSizeHint().height());

    deathTimer_.setSingleShot(true);
    connect(&deathTimer_, &QTimer::timeout, this, &QVNotificationPanel::decreaseAlpha);
    fade_ = new QPropertyAnimation(this, "windowOpacity", this);
    fade_->setDuration(kFadeMilliseconds);
    connect(fade_, &QPropertyAnimation::finished, this, &QVNotificationPanel::animationEnded);
}

QString QVNotificationPanel::typeTitle(int type) {
    switch (type) {
    case QVNotificationInfo:
        return tr("Info");
    case QVNotificationAlert:
        return tr("Alert!");
    case QVNotificationCritical:
        return tr("Critical Alert!");
    case QVNotificationProgress:
        return tr("Operation In Progress");
    default:
        return {};
    }
}

void QVNotificationPanel::post(const QPoint& topLeft) {
    move(topLeft);
    show();
    animateOpacity(kShownOpacity);
}

void QVNotificationPanel::animateOpacity(double to) {
    fade_->stop();
    fade_->setStartValue(windowOpacity());
    fade_->setEndValue(to);
    fade_->start();
}

void QVNotificationPanel::animationEnded() {
    if (seppuku_) {
        commitSeppuku();
        return;
    }
    if (notification_->isSticky() || notification_->isBusy()) return;
    resetLifespan();
}

void QVNotificationPanel::resetLifespan() {
    birth_ = now();
    death_ = birth_ + notification_->timeRemaining();
    deathTimer_.start(milliseconds(notification_->timeRemaining()));
}

void QVNotificationPanel::decreaseAlpha() {
    if (seppuku_) return;
    seppuku_ = true;
    deathTimer_.stop();
    if (windowOpacity() == 0.0)
        commitSeppuku();
    else
        animateOpacity(0.0);
}

void QVNotificationPanel::commitSeppuku() {
    if (committed_) return;
    committed_ = true;
    centre_.destroyNotification(notification_);
    notification_->setPanelFrame(std::nullopt);
    emit died();
    close();
}

void QVNotificationPanel::progressChanged() {
    updateBar();
    if (notification_->progress() >= 1.0 && !notification_->isSticky() && !seppuku_) resetLifespan();
}

void QVNotificationPanel::updateBar() {
    if (!bar_) return;
    if (notification_->isDeterminate()) {
        bar_->setRange(0, 1000);
        bar_->setValue(static_cast<int>(std::lround(notification_->progress() * 1000.0)));
    } else {
        bar_->setRange(0, 0); // a busy bar
    }
}

void QVNotificationPanel::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), background_);
    painter.setPen(background_.darker(160));
    painter.drawRect(rect().adjusted(0, 0, -1, -1));
}

void QVNotificationPanel::mousePressEvent(QMouseEvent*) { decreaseAlpha(); }

void QVNotificationPanel::enterEvent(QEnterEvent*) {
    if (seppuku_) return;
    if (!notification_->isSticky()) {
        deathTimer_.stop();
        birth_ = now();
    }
    // While fading in, the panel is on its way to full show: let it get there.
    if (fade_->state() == QAbstractAnimation::Running) return;
    hovered_ = true;
    opacityBeforeHover_ = windowOpacity();
    setWindowOpacity(1.0);
}

void QVNotificationPanel::leaveEvent(QEvent*) {
    if (seppuku_) return;
    if (hovered_) setWindowOpacity(opacityBeforeHover_);
    hovered_ = false;
    if (notification_->isSticky() || !std::isfinite(death_)) return;
    deathTimer_.start(milliseconds(std::max(0.0, death_ - birth_)));
}

} // namespace qv::ui
