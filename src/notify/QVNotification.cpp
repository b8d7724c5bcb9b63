#include "notify/QVNotification.h"

#include "notify/QVNotificationCenter.h"

namespace qv {

bool QVRect::overlapsWith(const QVRect& other) const {
    return x <= other.right() && other.x <= right() && y <= other.bottom() && other.y <= bottom();
}

QVNotification::QVNotification(int type, std::string message, double lifespan, bool sticky)
    : msg_(std::move(message)), type_(type), timeRemaining_(lifespan), sticky_(sticky) {}

std::string QVNotification::title() const { return QVNotificationCenter::typeToName(type_); }

bool QVNotification::isBusy() const { return type_ == QVNotificationProgress && progress_.load() < 1.0; }

void QVNotification::updateProgress(double amount) {
    progress_.store(amount);
    if (amount >= 1.0) determinate_.store(true);
}

std::shared_ptr<NotificationDelivery> QVNotification::delivery() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return delivery_.lock();
}

void QVNotification::setDelivery(const std::shared_ptr<NotificationDelivery>& delivery) {
    std::lock_guard<std::mutex> lock(mutex_);
    delivery_ = delivery;
}

std::optional<QVRect> QVNotification::panelFrame() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return panelFrame_;
}

void QVNotification::setPanelFrame(std::optional<QVRect> frame) {
    std::lock_guard<std::mutex> lock(mutex_);
    panelFrame_ = frame;
}

} // namespace qv
