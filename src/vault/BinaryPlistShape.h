#pragma once
// Structural check of a binary property list before libplist parses it. libplist
// parses recursively and expands shared sub-trees, so a hostile file could exhaust
// the stack (deep nesting) or memory (one container referenced many times). The
// check walks the file iteratively, follows every reference reachable from the
// root once, and refuses what libplist would choke on. It also checks every marker
// and extent, so that libplist only ever sees well-formed input.
#include <cstddef>
#include <cstdint>
#include <string>

namespace qv {

// Empty when the bytes may be handed to libplist's binary parser; otherwise the
// reason. Containers may nest `maxDepth` deep at most.
std::string QVBinaryPropertyListShapeProblem(const uint8_t* data, size_t size, size_t maxDepth);

} // namespace qv
