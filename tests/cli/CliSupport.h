#pragma once
// One user's world for running qv as that user would: a home under an image
// sandbox (which tears down whatever is left mounted or running), the XDG
// variables pointing into it, the set password given on standard input.
// Unless asked for, the database upgrade (fake sets and images) is switched off
// in the user's settings, so that tests of other commands don't pay for it.
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "image/ImageTestSupport.h"
#include "support/RunProcess.h"

namespace qv::test {

struct QvUser {
    std::string home;
    std::map<std::string, std::string> env;
    std::string password;

    QvUser(const ImageSandbox& sandbox, const std::string& name, std::string setPassword, bool upgrades = false)
        : home(sandbox.makeDir(name + "/home")), password(std::move(setPassword)) {
        env = {{"HOME", home},
               {"XDG_DATA_HOME", home + "/.local/share"},
               {"XDG_CONFIG_HOME", home + "/.config"},
               {"XDG_RUNTIME_DIR", sandbox.runtimeDir()},
               {"QV_IMAGE_LAYER", "fuse2fs"}};
        if (!upgrades) {
            std::filesystem::create_directories(home + "/.config/Quillvane");
            std::ofstream(home + "/.config/Quillvane/Quillvane.conf") << "[General]\nskipmigrationTov3=true\n";
        }
    }
    std::string data() const { return home + "/.local/share/com.marrowfen.Quillvane3"; }
    static std::string binary() { return std::string(QV_BINARY_DIR) + "/src/qv"; }
    // qv <args> with `input` on standard input; the set password followed by a newline unless told.
    ProcessResult qv(const std::vector<std::string>& args, const std::optional<std::string>& input = {}) const {
        std::vector<std::string> argv{binary()};
        argv.insert(argv.end(), args.begin(), args.end());
        return runProcess(argv, input.value_or(password + "\n"), env);
    }
};

// The first field of the status line (`qv status`) of the folder at `path`.
inline std::string stateOf(const std::string& status, const std::string& path) {
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);)
        if (line.size() > path.size() && line.compare(line.size() - path.size() - 1, std::string::npos, "\t" + path) == 0)
            return line.substr(0, line.find('\t'));
    return "<none>";
}

} // namespace qv::test
