#include "ui/assistant/MatchMark.h"

#include <QPainter>
#include <QPainterPath>

namespace qv::ui {

MatchMark::MatchMark(QWidget* parent) : QWidget(parent) {
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
    setMatch(false);
}

void MatchMark::setMatch(bool match) {
    match_ = match;
    setAccessibleName(match ? tr("The passwords match") : tr("The passwords do not match"));
    setToolTip(accessibleName());
    update();
}

QSize MatchMark::sizeHint() const {
    const int side = fontMetrics().height();
    return {side, side};
}

void MatchMark::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF box = QRectF(rect()).adjusted(2, 2, -2, -2);
    const QColor colour = match_ ? QColor(0x2e, 0x9d, 0x3a) : QColor(0xd0, 0x31, 0x2d);
    painter.setPen(QPen(colour, std::max(2.0, box.width() / 6), Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    QPainterPath path;
    if (match_) {
        path.moveTo(box.left(), box.center().y());
        path.lineTo(box.left() + box.width() * 0.4, box.bottom() - box.height() * 0.1);
        path.lineTo(box.right(), box.top() + box.height() * 0.1);
    } else {
        path.moveTo(box.topLeft());
        path.lineTo(box.bottomRight());
        path.moveTo(box.topRight());
        path.lineTo(box.bottomLeft());
    }
    painter.drawPath(path);
}

} // namespace qv::ui
