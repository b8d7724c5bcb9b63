#pragma once
// The desktop's Trash (freedesktop.org), through Qt. Two of Qt's ways are
// guarded against here: when it finds no Trash it may move the item into the
// working directory and still report success, and it takes paths as text, so
// a name that isn't valid text could make it trash another item.
#include <string>

#include "toolkit/QVError.h"

namespace qv {

// Moves the item at `path` to the Trash (the home Trash is made first when
// missing). False with the reason when it stays where it was. When Qt put it
// somewhere that is no Trash and it can't be brought back, the answer is true
// and *strayPath says where it is, so that the user can be told.
bool QVMoveToTrash(const std::string& path, QVError* error, std::string* strayPath);

// Whether `path` lies in the files of a freedesktop Trash: the home Trash
// `homeTrash`, "<volume>/.Trash/<uid>" or "<volume>/.Trash-<uid>".
bool QVIsInATrash(const std::string& path, const std::string& homeTrash);

// Where in the home Trash an item moved there from `originalPath` lies now,
// as its note (info/<name>.trashinfo) says; "" when none is there.
std::string QVTrashedItemFrom(const std::string& originalPath);

} // namespace qv
