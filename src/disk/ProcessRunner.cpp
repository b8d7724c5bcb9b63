#include "disk/ProcessRunner.h"

#include <QString>

#include <cstring>

#include "sys/ProgramRunner.h"
#include "toolkit/Log.h"

namespace qv {
namespace {

std::string decodeUtf8(const std::string& bytes) {
    return QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size())).toStdString();
}

std::vector<uint8_t> bytesOf(const std::string& text) { return {text.begin(), text.end()}; }

} // namespace

std::optional<std::vector<uint8_t>> quickCommand(const std::string& launchPath,
                                                 const std::vector<std::string>& args,
                                                 std::optional<std::span<const uint8_t>> inputData,
                                                 QVError* error) {
    if (error) *error = QVError{};
    QVRunOptions options;
    options.input = inputData;
    options.inheritInput = true;
    const QVProgramResult run = QVRunProgram(launchPath, args, options);

    if (run.failure != 0) {
        const char* known = ::strerrorname_np(run.failure);
        const std::string name = known ? known : "error " + std::to_string(run.failure);
        QV_LOG_ERROR(
            QVFormat("got %s while trying to run %s: %s", name.c_str(), launchPath.c_str(), run.failureReason.c_str()));
        QVSetError(error, QVPOSIXErrorDomain, -1, run.failureReason);
        if (run.out.empty()) return std::nullopt;
        return bytesOf(run.out);
    }
    // The exit status, or the number of the signal that killed the child.
    const int status = run.exited ? run.status : (run.signal != 0 ? run.signal : -1);
    if (status != 0) QVSetError(error, QVPOSIXErrorDomain, status, decodeUtf8(run.err));
    return bytesOf(run.out);
}

std::optional<std::string> quickCommand(const std::string& launchPath, const std::vector<std::string>& args,
                                        QVError* error) {
    std::optional<std::vector<uint8_t>> out = quickCommand(launchPath, args, std::nullopt, error);
    if (!out) return std::nullopt;
    return QString::fromUtf8(reinterpret_cast<const char*>(out->data()), static_cast<qsizetype>(out->size()))
        .toStdString();
}

} // namespace qv
