#pragma once
// One floating panel of the built-in way: a frameless tool window at the top
// right of the screen, in the colours of its message's type, that fades in to
// 0.9, lives for the message's lifespan and fades out. Hovering holds it (and
// shows it fully opaque), a click dismisses it, sticky ones too, and a progress
// panel shows its bar and starts its countdown only once the bar reaches 1.0.
#include <QColor>
#include <QPointer>
#include <QTimer>
#include <QWidget>

#include "notify/QVNotification.h"

class QLabel;
class QProgressBar;
class QPropertyAnimation;

namespace qv {
class QVNotificationCenter;
} // namespace qv

namespace qv::ui {

class QVNotificationPanel : public QWidget {
    Q_OBJECT
public:
    static constexpr double kShownOpacity = 0.9;
    static constexpr int kFadeMilliseconds = 100;
    static constexpr int kPanelWidth = 300;

    // The panel reports its death to `centre`, which must outlive it.
    QVNotificationPanel(QVNotificationRef notification, QVNotificationCenter& centre, const QColor& background,
                        const QColor& foreground);

    // The type's title in the user's language.
    static QString typeTitle(int type);

    const QVNotificationRef& notification() const { return notification_; }
    // Starts the fade-in at `topLeft`.
    void post(const QPoint& topLeft);
    // The message's amount changed: the bar follows, and a non-sticky panel
    // that reached 1.0 starts its countdown.
    void progressChanged();

    // Starts (again) the countdown of the message's lifespan from now.
    void resetLifespan();
    // Begins the panel's death: a fade-out, then commitSeppuku.
    void decreaseAlpha();

    bool isDying() const { return seppuku_; }
    // Whether a fade-out is scheduled, and when (milliseconds from now).
    bool countdownRunning() const { return deathTimer_.isActive(); }
    int countdownRemaining() const { return deathTimer_.remainingTime(); }

signals:
    // The message left the centre; the panel deletes itself next.
    void died();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    void animateOpacity(double to);
    void animationEnded();
    void commitSeppuku();
    void updateBar();

    const QVNotificationRef notification_;
    QVNotificationCenter& centre_;
    const QColor background_;
    QLabel* title_ = nullptr;
    QLabel* message_ = nullptr;
    QProgressBar* bar_ = nullptr;
    QPropertyAnimation* fade_ = nullptr;
    QTimer deathTimer_;
    // Seconds on a monotonic clock; death is infinite until a countdown starts.
    double birth_ = 0;
    double death_;
    bool seppuku_ = false;
    bool committed_ = false;
    bool hovered_ = false;
    double opacityBeforeHover_ = kShownOpacity;
};

} // namespace qv::ui
