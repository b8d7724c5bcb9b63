#pragma once
// The one error type of the system: a domain, an integer code and a description.
// Operations that can fail take an optional `QVError* error` out-parameter and
// fill it only where their contract says so (a wrong password fills nothing).
#include <string>

namespace qv {

struct QVError {
    std::string domain;
    long code = 0;
    std::string description;

    bool empty() const { return domain.empty() && code == 0 && description.empty(); }
};

// The domain of the system's own errors: the application's name.
const std::string& QVAppErrorDomain();
// The domain of errors that carry an errno value or a process exit status.
inline constexpr const char* QVPOSIXErrorDomain = "POSIX";

// Codes shared across the system.
enum QVErrorCode : long {
    QVErrorCancelled = 1000,
    QVErrorFailed = 1001,
    QVErrorRefused = 1003,
    QVErrorPasswordWrap = 1004,
    QVErrorPartialRestore = 1006,
    QVErrorUnlockRefused = 1102,
    QVErrorBusyVolume = -47,
    QVErrorUnknown = -1,
};

// Fills *out when out is not null; otherwise does nothing.
void QVSetError(QVError* out, const std::string& domain, long code, const std::string& description);
inline void QVSetAppError(QVError* out, long code, const std::string& description) {
    QVSetError(out, QVAppErrorDomain(), code, description);
}
// An error from errno: POSIX domain, the errno value, strerror's text after `what`.
void QVSetErrnoError(QVError* out, int err, const std::string& what);

} // namespace qv
