#pragma once
// One message of the notification centre: its type, text, lifespan and, for a
// progress message, how far the operation has come. A progress message is also
// the handle that its poster keeps for QVNotificationCenter::updateProgress.
//
// The text, type, lifespan and sticky flag never change after construction, so
// any thread may read them. Progress and the determinate flag are atomic; the
// delivery that showed the message and the panel frame are guarded by a lock.
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace qv {

class NotificationDelivery;

// A rectangle in screen coordinates with the origin at the top left and y
// growing downwards (as Qt measures screens).
struct QVRect {
    double x = 0, y = 0, width = 0, height = 0;
    double right() const { return x + width; }
    double bottom() const { return y + height; }
    // Touching edges count as overlapping, so that stacked panels keep a gap.
    bool overlapsWith(const QVRect& other) const;
    bool operator==(const QVRect&) const = default;
};

class QVNotification {
public:
    QVNotification(int type, std::string message, double lifespan, bool sticky);

    const std::string& msg() const { return msg_; }
    int type() const { return type_; }
    // Seconds the message stays on show once its countdown starts.
    double timeRemaining() const { return timeRemaining_; }
    bool isSticky() const { return sticky_; }
    // The type's title ("Info", "Alert!", ...); empty for an unknown type.
    std::string title() const;

    double progress() const { return progress_.load(); }
    bool isDeterminate() const { return determinate_.load(); }
    // A progress message is busy until it reaches 1.0: it never times out before.
    bool isBusy() const;

    void setDeterminate(bool determinate) { determinate_.store(determinate); }
    // Stores the amount; at 1.0 or more an indeterminate message turns determinate,
    // so that a finished bar shows as full.
    void updateProgress(double amount);

    // The delivery that showed the message (null when it was dropped), for updates.
    std::shared_ptr<NotificationDelivery> delivery() const;
    void setDelivery(const std::shared_ptr<NotificationDelivery>& delivery);

    // Where the built-in panel of this message stands, once it has one.
    std::optional<QVRect> panelFrame() const;
    void setPanelFrame(std::optional<QVRect> frame);

private:
    const std::string msg_;
    const int type_;
    const double timeRemaining_;
    const bool sticky_;
    std::atomic<double> progress_{0.0};
    std::atomic<bool> determinate_{true};
    mutable std::mutex mutex_;
    std::weak_ptr<NotificationDelivery> delivery_;
    std::optional<QVRect> panelFrame_;
};

using QVNotificationRef = std::shared_ptr<QVNotification>;

} // namespace qv
