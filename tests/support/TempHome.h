#pragma once
// A private home for one test: HOME and the XDG variables point into a fresh
// temporary directory, and the cached locations and settings are forgotten, so
// that nothing a test writes reaches the real user's files. Undone on destruction.
#include <map>
#include <optional>
#include <string>

namespace qv::test {

class TempHome {
public:
    TempHome();
    ~TempHome();
    TempHome(const TempHome&) = delete;
    TempHome& operator=(const TempHome&) = delete;

    const std::string& root() const { return root_; }
    std::string dataHome() const { return root_ + "/.local/share"; }
    std::string configHome() const { return root_ + "/.config"; }

private:
    std::string root_;
    std::map<std::string, std::optional<std::string>> saved_;
};

// A fresh empty temporary directory, removed by the caller (or left for inspection).
std::string makeTempDir(const std::string& prefix = "qvtest");

} // namespace qv::test
