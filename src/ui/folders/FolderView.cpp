#include "ui/folders/FolderView.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QDateTime>
#include <QHelpEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QToolTip>

#include "ui/folders/FolderIcons.h"
#include "ui/folders/FolderListModel.h"

namespace qv::ui {

namespace {

constexpr int kMargin = 8;
constexpr int kIcon = 32;
constexpr int kAction = 16;
constexpr int kLock = 24;
constexpr int kBar = 6;
constexpr int kGap = 4;

QFont nameFont(QFont font) {
    font.setBold(true);
    return font;
}

QFont statusFont(QFont font) {
    if (font.pointSizeF() > 0) font.setPointSizeF(font.pointSizeF() * 0.9);
    return font;
}

QAbstractItemView* viewOf(const QStyleOptionViewItem& option) {
    return qobject_cast<QAbstractItemView*>(const_cast<QWidget*>(option.widget));
}

} // namespace

FolderView::FolderView(QObject* parent) : QStyledItemDelegate(parent) {}

FolderView::Layout FolderView::layout(const QRect& row, const QFont& font) {
    const QRect r = row.adjusted(kMargin, kMargin, -kMargin, -kMargin);
    const int nameHeight = QFontMetrics(nameFont(font)).height();
    const int statusHeight = QFontMetrics(statusFont(font)).height();
    const int midY = r.center().y();
    Layout l;
    l.icon = QRect(r.left(), midY - kIcon / 2, kIcon, kIcon);
    l.lock = QRect(r.right() - kLock + 1, midY - kLock / 2, kLock, kLock);
    l.action = QRect(l.lock.left() - 2 * kMargin - kAction, midY - kAction / 2, kAction, kAction);
    const int left = l.icon.right() + 1 + 2 * kMargin - kGap;
    const int width = l.action.left() - 2 * kMargin + kGap - left;
    const int top = midY - (nameHeight + kBar + statusHeight + 2 * kGap) / 2;
    l.name = QRect(left, top, width, nameHeight);
    l.bar = QRect(left, l.name.bottom() + 1 + kGap, width, kBar);
    l.status = QRect(left, l.bar.bottom() + 1 + kGap, width, statusHeight);
    return l;
}

FolderView::Part FolderView::partAt(const QRect& row, const QFont& font, const QPoint& point) {
    const Layout l = layout(row, font);
    // The controls answer a little around their pictures: they are small.
    if (l.action.adjusted(-kGap, -kGap, kGap, kGap).contains(point)) return Part::Action;
    if (l.lock.adjusted(-kGap, -kGap, kGap, kGap).contains(point)) return Part::Lock;
    return Part::None;
}

QColor FolderView::readableOn(QColor ink, const QColor& background) {
    const bool darkBackground = background.lightnessF() < 0.5;
    const bool darkInk = ink.lightnessF() < 0.5;
    if (darkBackground == darkInk)
        ink.setHslF(ink.hslHueF(), ink.hslSaturationF(), 1.0 - ink.lightnessF(), ink.alphaF());
    return ink;
}

QSize FolderView::sizeHint(const QStyleOptionViewItem& option, const QModelIndex&) const {
    const int text = QFontMetrics(nameFont(option.font)).height() + QFontMetrics(statusFont(option.font)).height();
    return {320, std::max(kIcon, text + kBar + 2 * kGap) + 2 * kMargin + 4};
}

void FolderView::drawPicture(QPainter* painter, const QRect& rect, const QString& name, const QColor& ink,
                             const QColor& paper) const {
    if (name.isEmpty()) return;
    painter->drawPixmap(rect.topLeft(),
                        folderPicture(name, rect.size(), painter->device()->devicePixelRatioF(), ink, paper));
}

void FolderView::drawBar(QPainter* painter, const QRect& rect, const QModelIndex& index, const QPalette& palette,
                         bool selected) const {
    // Drawn here rather than by the style: a style's bar is made for a widget of
    // its own height, and this one is a thin line within the row.
    const QColor fill = palette.color(selected ? QPalette::HighlightedText : QPalette::Highlight);
    QColor groove = palette.color(selected ? QPalette::HighlightedText : QPalette::Text);
    groove.setAlphaF(0.15f);
    const qreal radius = rect.height() / 2.0;
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setPen(Qt::NoPen);
    painter->setBrush(groove);
    painter->drawRoundedRect(rect, radius, radius);
    QRectF done = rect;
    if (index.data(FolderListModel::IndeterminateRole).toBool()) {
        // Work of unknown length: a third of the bar, stepping along while the row repaints.
        const qint64 step = (QDateTime::currentMSecsSinceEpoch() / 40) % 100;
        done.setWidth(rect.width() / 3.0);
        done.moveLeft(rect.left() + (rect.width() - done.width()) * step / 99.0);
    } else {
        done.setWidth(rect.width() * index.data(FolderListModel::ProgressRole).toDouble());
    }
    if (done.width() <= 0) return;
    painter->setBrush(fill);
    painter->drawRoundedRect(done, radius, radius);
}

void FolderView::paint(QPainter* painter, const QStyleOptionViewItem& option, const QModelIndex& index) const {
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    QStyle* style = opt.widget ? opt.widget->style() : QApplication::style();
    // The row's background and selection as the style draws them, without its text.
    opt.text.clear();
    opt.icon = QIcon();
    style->drawPrimitive(QStyle::PE_PanelItemViewItem, &opt, painter, opt.widget);

    const bool selected = opt.state & QStyle::State_Selected;
    const QPalette::ColorGroup group = (opt.state & QStyle::State_Enabled) ? QPalette::Normal : QPalette::Disabled;
    const QColor background = opt.palette.color(group, selected ? QPalette::Highlight : QPalette::Base);
    const QColor text = opt.palette.color(group, selected ? QPalette::HighlightedText : QPalette::Text);
    const Layout l = layout(opt.rect, opt.font);

    painter->save();
    drawPicture(painter, l.icon, QStringLiteral("Folder"), text, background);

    painter->setFont(nameFont(opt.font));
    painter->setPen(text);
    const QString name = index.data(Qt::DisplayRole).toString();
    painter->drawText(l.name, Qt::AlignLeft | Qt::AlignVCenter,
                      QFontMetrics(painter->font()).elidedText(name, Qt::ElideMiddle, l.name.width()));

    drawBar(painter, l.bar, index, opt.palette, selected);

    // The core's status colour, made readable on this palette; a selected row
    // keeps to the selection's text colour.
    const QColor statusInk =
        selected ? text : readableOn(index.data(FolderListModel::StatusColorRole).value<QColor>(), background);
    painter->setFont(statusFont(opt.font));
    painter->setPen(statusInk);
    painter->drawText(
        l.status, Qt::AlignLeft | Qt::AlignVCenter,
        QFontMetrics(painter->font())
            .elidedText(index.data(FolderListModel::StatusTextRole).toString(), Qt::ElideRight, l.status.width()));

    const bool pressed = pressedIndex_ == index;
    const QString action = index
                               .data(pressed && pressedPart_ == Part::Action ? FolderListModel::ActionIconPressedRole
                                                                             : FolderListModel::ActionIconRole)
                               .toString();
    drawPicture(painter, l.action, action, text, background);

    const bool locked = index.data(FolderListModel::LockedRole).toBool();
    const bool busy = index.data(FolderListModel::BusyRole).toBool();
    QColor lockInk = busy ? opt.palette.color(QPalette::Disabled, QPalette::Text)
                          : (locked || selected ? text : opt.palette.color(group, QPalette::Highlight));
    if (pressed && pressedPart_ == Part::Lock) lockInk.setAlphaF(0.6f);
    drawPicture(painter, l.lock, locked ? QStringLiteral("Locked") : QStringLiteral("Unlocked"), lockInk, background);

    if (opt.state & QStyle::State_HasFocus) {
        QStyleOptionFocusRect focus;
        focus.QStyleOption::operator=(opt);
        focus.rect = opt.rect.adjusted(1, 1, -1, -1);
        focus.backgroundColor = background;
        style->drawPrimitive(QStyle::PE_FrameFocusRect, &focus, painter, opt.widget);
    }
    painter->restore();
}

bool FolderView::editorEvent(QEvent* event, QAbstractItemModel*, const QStyleOptionViewItem& option,
                             const QModelIndex& index) {
    const auto type = event->type();
    if (type != QEvent::MouseButtonPress && type != QEvent::MouseButtonRelease && type != QEvent::MouseButtonDblClick)
        return false;
    auto* mouse = static_cast<QMouseEvent*>(event);
    if (mouse->button() != Qt::LeftButton) return false;
    const Part part = partAt(option.rect, option.font, mouse->position().toPoint());
    auto repaint = [&] {
        if (QAbstractItemView* view = viewOf(option)) view->viewport()->update(option.rect);
    };
    if (type == QEvent::MouseButtonDblClick) {
        if (part != Part::None) return true; // two quick clicks on a control are not an open
        emit rowDoubleClicked(index);
        return false;
    }
    if (type == QEvent::MouseButtonPress) {
        if (part == Part::None) return false;
        pressedIndex_ = index;
        pressedPart_ = part;
        repaint();
        return true;
    }
    // A click counts when it ends on the control it began on.
    const bool wasPressed = pressedPart_ != Part::None;
    const bool click = part != Part::None && (!wasPressed || (pressedIndex_ == index && pressedPart_ == part));
    pressedIndex_ = QPersistentModelIndex();
    pressedPart_ = Part::None;
    repaint();
    if (!click) return wasPressed;
    if (part == Part::Action)
        emit actionClicked(index);
    else
        emit lockClicked(index, mouse->modifiers() & Qt::ShiftModifier);
    return true;
}

bool FolderView::helpEvent(QHelpEvent* event, QAbstractItemView* view, const QStyleOptionViewItem& option,
                           const QModelIndex& index) {
    if (event->type() != QEvent::ToolTip) return QStyledItemDelegate::helpEvent(event, view, option, index);
    QString tip;
    switch (partAt(option.rect, option.font, event->pos())) {
    case Part::Action: {
        const QString action = index.data(FolderListModel::ActionIconRole).toString();
        tip = action == QLatin1String("Cancel") ? tr("Cancel the running task")
              : action == QLatin1String("Back") ? tr("Close the folder's information")
                                                : tr("Show the folder's information");
        break;
    }
    case Part::Lock:
        tip = index.data(FolderListModel::LockedRole).toBool() ? tr("Unlock the folder (Shift reverses opening it)")
                                                               : tr("Lock the folder");
        break;
    case Part::None:
        return QStyledItemDelegate::helpEvent(event, view, option, index);
    }
    QToolTip::showText(event->globalPos(), tip, view);
    return true;
}

} // namespace qv::ui
