#pragma once
// The one guard every property list from outside passes before libplist sees it.
// libplist frees its trees recursively and expands a binary list's shared
// sub-trees, so a hostile file could exhaust the stack (deep nesting) or memory
// (one container referenced from many places, or a huge file). The guard checks
// the bytes without building anything and without recursion: size, nesting, and
// for binary lists how far they expand and whether every marker and extent is
// sound, so that libplist only ever sees input it parses safely.
#include <cstddef>
#include <cstdint>
#include <string>

namespace qv {

enum class QVPropertyListFormat {
    Any,    // binary when it starts with "bplist", else XML
    Binary, // refuses XML
    XML,    // refuses binary
};

struct QVPropertyListLimits {
    size_t maxBytes = 0;
    // How deep containers (arrays, dictionaries) may nest inside each other.
    size_t maxDepth = 0;
};

// Settings, image descriptions, records beside an image, a helper's output: a few
// KiB each, with a handful of levels.
inline constexpr QVPropertyListLimits QVPlainPropertyListLimits{4u << 20, 256};

// Empty when the bytes may be handed to libplist; otherwise the reason, in words
// ("nested too deeply", "expands too much", "too large", ...).
std::string QVPropertyListProblem(const uint8_t* data, size_t size, QVPropertyListFormat format,
                                  const QVPropertyListLimits& limits);

// The two checks behind it, for one format each; they don't look at the size.
std::string QVBinaryPropertyListShapeProblem(const uint8_t* data, size_t size, size_t maxDepth);
std::string QVXMLPropertyListShapeProblem(const uint8_t* data, size_t size, size_t maxDepth);

} // namespace qv
