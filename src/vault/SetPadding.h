#pragma once
// A Folder Set's archive padded to a fixed bucket before it is encrypted, so
// that the length of a blob in the master file says nothing about how many
// folders the set holds (until a set outgrows the first bucket). The padding
// is an extra data entry of random bytes that readers drop.
#include <cstddef>
#include <optional>

#include "toolkit/QVError.h"
#include "vault/Value.h"

namespace qv {

inline constexpr size_t QVSetArchiveBucket = 16384;
// The key of the padding entry in a set's dictionary.
inline constexpr const char* QVSDBPaddingKey = "QVSDBPaddingKey";

// The keyed archive of the set's dictionary with a padding entry that brings its
// length to a multiple of QVSetArchiveBucket (the smallest one it fits in). The
// dictionary itself is not changed. Nothing when the dictionary can't be archived.
std::optional<Bytes> QVArchivePaddedSet(const DictRef& set, QVError* error = nullptr);

// Takes the padding entry out of a set's dictionary that was read back.
void QVDropSetPadding(Dict& set);

} // namespace qv
