#include "ui/folders/FolderListModel.h"

#include <QColor>
#include <QMimeData>
#include <QPointer>
#include <algorithm>
#include <set>

#include "app/FolderList.h"
#include "tasks/BaseFolderTask.h"
#include "toolkit/PathText.h"
#include "vault/FacePresentation.h"
#include "vault/Schemas.h"

namespace qv::ui {

namespace {

// The face's fields that show on its row.
const char* const kShownKeys[] = {
    "progressPercentage", "progressIndeterminate", "progressAnimate", "statusText", "statusColor",
    "actionIcon",         "actionIconAlt",         "locked",          "cancelable", "currentOp"};

std::string pathOf(const QVRecordRef& face) {
    return QVFolderMountpointPath(FolderFaceRef{face}.folder().as<QVRecord>());
}

QString text(const Value& value) { return value.isString() ? QString::fromStdString(value.toString()) : QString(); }

QColor colorOf(const Value& value) {
    auto color = value.as<QVColor>();
    if (!color) color = QVNormalStatusColor().as<QVColor>();
    return QColor::fromRgbF(float(color->red()), float(color->green()), float(color->blue()), float(color->alpha()));
}

} // namespace

// Hears a face's fields on whatever thread writes them and hands the news to
// the model on the GUI thread.
class FolderListModel::FaceObserver : public QVRecordObserver {
public:
    explicit FaceObserver(FolderListModel* model) : model_(model) {}
    void recordWillChangeValueForKey(const QVRecord&, const std::string&) override {}
    void recordDidChangeValueForKey(const QVRecord& record, const std::string&) override {
        const QVRecord* face = &record; // only compared, never followed
        QMetaObject::invokeMethod(
            model_, [model = model_, face] { model->faceChanged(face); }, Qt::QueuedConnection);
    }

private:
    FolderListModel* model_;
};

FolderListModel::FolderListModel(QObject* parent)
    : QAbstractListModel(parent), observer_(std::make_shared<FaceObserver>(this)), animation_(new QTimer(this)) {
    animation_->setInterval(40);
    connect(animation_, &QTimer::timeout, this, [this] {
        for (size_t row = 0; row < rows_.size(); ++row) {
            FolderFaceRef ff{rows_[row]};
            if (ff.progressIndeterminate().toBool() && ff.progressAnimate().toBool())
                emit dataChanged(index(int(row)), index(int(row)), {IndeterminateRole});
        }
    });
    listener_ = FolderList::singleton().addFacesListener([this] { reload(); });
    reload();
}

FolderListModel::~FolderListModel() {
    FolderList::singleton().removeFacesListener(listener_);
    observe(false);
}

void FolderListModel::observe(bool on) {
    for (const auto& face : rows_)
        for (const char* key : kShownKeys) {
            if (on)
                face->addObserver(observer_, key);
            else
                face->removeObserver(observer_.get(), key);
        }
}

void FolderListModel::reload() {
    beginResetModel();
    observe(false);
    rows_ = FolderList::singleton().arrangedFaces();
    observe(true);
    endResetModel();
    animateWhileBusy();
    emit rowsReloaded();
}

void FolderListModel::animateWhileBusy() {
    const bool busy = std::any_of(rows_.begin(), rows_.end(), [](const QVRecordRef& face) {
        return FolderFaceRef{face}.progressIndeterminate().toBool() && FolderFaceRef{face}.progressAnimate().toBool();
    });
    if (busy && !animation_->isActive()) animation_->start();
    if (!busy) animation_->stop();
}

void FolderListModel::faceChanged(const QVRecord* face) {
    const int row = rowOf(face);
    if (row < 0) return;
    const QModelIndex at = index(row);
    emit dataChanged(at, at);
    animateWhileBusy();
}

int FolderListModel::rowOf(const QVRecord* face) const {
    for (size_t i = 0; i < rows_.size(); ++i)
        if (rows_[i].get() == face) return int(i);
    return -1;
}

QVRecordRef FolderListModel::faceAt(int row) const {
    return row >= 0 && size_t(row) < rows_.size() ? rows_[size_t(row)] : nullptr;
}

int FolderListModel::rowCount(const QModelIndex& parent) const { return parent.isValid() ? 0 : int(rows_.size()); }

QVariant FolderListModel::data(const QModelIndex& index, int role) const {
    const QVRecordRef face = faceAt(index.row());
    if (!face) return {};
    FolderFaceRef ff{face};
    switch (role) {
    case Qt::DisplayRole:
    case Qt::AccessibleTextRole:
        return QString::fromStdString(QVLastPathComponent(pathOf(face)));
    case Qt::ToolTipRole:
    case PathRole:
        return QString::fromStdString(pathOf(face));
    case StatusTextRole:
        return text(ff.statusText());
    case StatusIsErrorRole:
        return QVIsErrorStatusColor(ff.statusColor());
    case StatusColorRole:
        return colorOf(ff.statusColor());
    case ProgressRole:
        return std::clamp(ff.progressPercentage().toDouble(), 0.0, 1.0);
    case IndeterminateRole:
        return ff.progressIndeterminate().toBool();
    case ActionIconRole:
        return text(ff.actionIcon());
    case ActionIconPressedRole:
        return text(ff.actionIconAlt());
    case LockedRole:
        return ff.locked().toBool();
    case BusyRole:
        return hasCurrentOperation(face);
    default:
        return {};
    }
}

Qt::ItemFlags FolderListModel::flags(const QModelIndex& index) const {
    // Rows are dropped between rows (the list takes the drop), never onto one.
    if (!index.isValid()) return Qt::ItemIsDropEnabled;
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsDragEnabled;
}

QStringList FolderListModel::mimeTypes() const { return {QString::fromLatin1(kRowsMimeType)}; }

QMimeData* FolderListModel::mimeData(const QModelIndexList& indexes) const {
    // The rows travel as their places in the list's faces, whatever the filter shows.
    const auto& faces = FolderList::singleton().faces();
    QStringList places;
    for (const QModelIndex& index : indexes) {
        auto it = std::find(faces.begin(), faces.end(), faceAt(index.row()));
        if (it != faces.end()) places << QString::number(it - faces.begin());
    }
    auto* data = new QMimeData;
    data->setData(QString::fromLatin1(kRowsMimeType), places.join(QLatin1Char(',')).toLatin1());
    return data;
}

bool FolderListModel::canDropMimeData(const QMimeData* data, Qt::DropAction action, int, int,
                                      const QModelIndex&) const {
    return data && data->hasFormat(QString::fromLatin1(kRowsMimeType)) && action == Qt::MoveAction;
}

bool FolderListModel::dropMimeData(const QMimeData* data, Qt::DropAction action, int row, int column,
                                   const QModelIndex& parent) {
    if (!canDropMimeData(data, action, row, column, parent)) return false;
    FolderList& list = FolderList::singleton();
    std::set<size_t> places;
    for (const QByteArray& place : data->data(QString::fromLatin1(kRowsMimeType)).split(',')) {
        bool ok = false;
        const qulonglong value = place.toULongLong(&ok);
        if (ok) places.insert(size_t(value));
    }
    // A drop onto a row lands before it; below the last row, at the end. The
    // target is a place in the faces, as the list moves them.
    if (row < 0) row = parent.isValid() ? parent.row() : rowCount();
    const auto& faces = list.faces();
    size_t target = faces.size();
    if (const QVRecordRef before = faceAt(row))
        target = size_t(std::find(faces.begin(), faces.end(), before) - faces.begin());
    return list.acceptDrop(places, target);
}

} // namespace qv::ui
