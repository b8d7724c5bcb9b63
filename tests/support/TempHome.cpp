#include "support/TempHome.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "vault/UserDefaults.h"
#include "vault/Locations.h"

namespace qv::test {

std::string makeTempDir(const std::string& prefix) {
    std::string tmpl = (std::filesystem::temp_directory_path() / (prefix + ".XXXXXX")).string();
    if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    return tmpl;
}

TempHome::TempHome() : root_(makeTempDir("qvhome")) {
    const std::map<std::string, std::string> vars = {
        {"HOME", root_},
        {"XDG_DATA_HOME", root_ + "/.local/share"},
        {"XDG_CONFIG_HOME", root_ + "/.config"},
        {"XDG_CACHE_HOME", root_ + "/.cache"},
    };
    for (const auto& [name, value] : vars) {
        const char* old = std::getenv(name.c_str());
        saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    std::filesystem::create_directories(root_ + "/.local/share");
    std::filesystem::create_directories(root_ + "/.config");
    QVLocationsForgetCache();
    QVUserDefaults::standardUserDefaults().reopen();
}

TempHome::~TempHome() {
    for (const auto& [name, value] : saved_) {
        if (value)
            ::setenv(name.c_str(), value->c_str(), 1);
        else
            ::unsetenv(name.c_str());
    }
    QVLocationsForgetCache();
    QVUserDefaults::standardUserDefaults().reopen();
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
}

} // namespace qv::test
