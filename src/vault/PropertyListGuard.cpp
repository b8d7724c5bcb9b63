#include "vault/PropertyListGuard.h"

#include <cstring>

namespace qv {

std::string QVPropertyListProblem(const uint8_t* data, size_t size, QVPropertyListFormat format,
                                  const QVPropertyListLimits& limits) {
    if (size > limits.maxBytes) return "too large";
    const bool binary = size >= 6 && std::memcmp(data, "bplist", 6) == 0;
    switch (format) {
    case QVPropertyListFormat::Binary:
        return QVBinaryPropertyListShapeProblem(data, size, limits.maxDepth);
    case QVPropertyListFormat::XML:
        if (binary) return "a binary property list where XML is expected";
        return QVXMLPropertyListShapeProblem(data, size, limits.maxDepth);
    case QVPropertyListFormat::Any:
    default:
        return binary ? QVBinaryPropertyListShapeProblem(data, size, limits.maxDepth)
                      : QVXMLPropertyListShapeProblem(data, size, limits.maxDepth);
    }
}

} // namespace qv
