#pragma once
// Runs a program with given standard input and environment additions and
// collects its exit status and output, without a shell.
#include <map>
#include <string>
#include <vector>

namespace qv::test {

struct ProcessResult {
    int exitCode = -1;   // -1 when killed by a signal
    int signal = 0;
    std::string out;
    std::string err;
};

ProcessResult runProcess(const std::vector<std::string>& argv, const std::string& input,
                         const std::map<std::string, std::string>& env = {});

} // namespace qv::test
