#include "ui/logic/FolderList.h"

#include <cstdint>

#include "toolkit/HumanReadable.h"
#include "toolkit/Log.h"
#include "vault/DBSubdb.h"
#include "vault/Schemas.h"

namespace qv {

FolderList& FolderList::singleton() {
    static FolderList* list = new FolderList();  // lives as long as the process; never torn down at exit
    return *list;
}

Value FolderList::normalStatusColor() {
    static const Value color(std::make_shared<QVColor>(0.345, 0.345, 0.345, 1.0));
    return color;
}

Value FolderList::errorStatusColor() {
    static const Value color(std::make_shared<QVColor>(0.8, 0.06, 0.13, 1.0));
    return color;
}

bool FolderList::isErrorStatusColor(const Value& color) {
    auto c = color.as<QVColor>();
    auto e = errorStatusColor().as<QVColor>();
    return c && c->red() == e->red() && c->green() == e->green() && c->blue() == e->blue() &&
           c->alpha() == e->alpha();
}

void FolderList::setStatusText(const std::string& text, bool error, const QVRecordRef& face) {
    if (!face) return;
    FolderFaceRef ff{face};
    ff.setStatusText(Value(text));
    ff.setStatusColor(error ? errorStatusColor() : normalStatusColor());
}

void FolderList::displayFolderSizeInfo(const QVRecordRef& face) {
    if (!face) return;
    FolderFaceRef ff{face};
    FolderRef folder{ff.folder().as<QVRecord>()};
    DiskInfoRef diskinfo{folder.diskinfo().as<QVRecord>()};
    // Sizes are unsigned 64-bit quantities kept in signed record numbers.
    const uint64_t size = static_cast<uint64_t>(folder.folderSize().toInt());
    const uint64_t capacity = static_cast<uint64_t>(diskinfo.capacity().toInt());
    ff.setProgressAnimate(Value(false));
    ff.setProgressIndeterminate(Value(false));
    ff.setProgressPercentage(Value(capacity ? double(size) / double(capacity) : 0.0));
    setStatusText(bytesToHumanReadableString(size) + " of " + bytesToHumanReadableString(capacity) + " used", false,
                  face);
}

} // namespace qv
