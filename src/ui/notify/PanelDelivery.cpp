#include "ui/notify/PanelDelivery.h"

#include <QGuiApplication>
#include <QScreen>

#include "notify/QVNotificationCenter.h"
#include "notify/QVNotificationColor.h"
#include "toolkit/Log.h"

namespace qv::ui {

namespace {

QColor preferenceColor(QVNotificationCenter& centre, const std::string& key) {
    auto color = QVColorFromValue(centre.fetchValueForPreference(key));
    if (!color) {
        QV_LOG_WARN("not a colour: " + key);
        color = QVColorWhite;
    }
    return QColor::fromRgbF(float(color->red), float(color->green), float(color->blue), float(color->alpha));
}

// The preference keys of a type's colours: alerts and critical messages have
// their own, information and progress share the info colours.
std::string colourPrefix(int type) {
    if (type == QVNotificationAlert) return "QVAlert";
    if (type == QVNotificationCritical) return "QVCritical";
    return "QVInfo";
}

} // namespace

PanelDelivery::PanelDelivery(QVNotificationCenter& centre) : centre_(centre) {}

PanelDelivery::~PanelDelivery() {
    for (auto& [message, panel] : panels_)
        if (panel) delete panel.data();
}

void PanelDelivery::deliver(const QVNotificationRef& notification) {
    if (!notification) return;
    if (notification->msg().empty()) {
        QV_LOG_ERROR(QVFormat("NULL message of type: %d!", notification->type()));
        return;
    }
    for (auto it = panels_.begin(); it != panels_.end();) it = it->second ? std::next(it) : panels_.erase(it);

    const std::string prefix = colourPrefix(notification->type());
    auto* panel = new QVNotificationPanel(notification, centre_, preferenceColor(centre_, prefix + "BGColor"),
                                          preferenceColor(centre_, prefix + "FGColor"));
    QScreen* screen = QGuiApplication::primaryScreen();
    const QRect available = screen ? screen->availableGeometry() : QRect(0, 0, 1024, 768);
    const QVRect place = centre_.availableRectGivenSize(
        panel->width(), panel->height(),
        {double(available.x()), double(available.y()), double(available.width()), double(available.height())});
    notification->setPanelFrame(place);
    panels_[notification.get()] = panel;
    panel->post(QPoint(int(place.x), int(place.y)));
}

void PanelDelivery::progressChanged(const QVNotificationRef& notification) {
    if (QVNotificationPanel* panel = panelFor(notification)) panel->progressChanged();
}

QVNotificationPanel* PanelDelivery::panelFor(const QVNotificationRef& notification) const {
    auto it = panels_.find(notification.get());
    if (it == panels_.end() || !it->second || it->second->notification() != notification) return nullptr;
    return it->second.data();
}

} // namespace qv::ui
