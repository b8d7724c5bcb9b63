#include "toolkit/QVError.h"

#include <cstring>

namespace qv {

const std::string& QVAppErrorDomain() {
    static const std::string domain = "Quillvane";
    return domain;
}

void QVSetError(QVError* out, const std::string& domain, long code, const std::string& description) {
    if (!out) return;
    out->domain = domain;
    out->code = code;
    out->description = description;
}

void QVSetErrnoError(QVError* out, int err, const std::string& what) {
    if (!out) return;
    std::string text = what.empty() ? std::string(std::strerror(err)) : what + ": " + std::strerror(err);
    QVSetError(out, QVPOSIXErrorDomain, err, text);
}

} // namespace qv
