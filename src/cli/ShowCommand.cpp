// qv show: the running desktop application comes forward.
#include "app/ScriptingBus.h"
#include "cli/Cli.h"

namespace qv::cli {

int cmdShow(const std::vector<std::string>& args) {
    if (!args.empty()) {
        complain("usage: qv show");
        return ExitUsage;
    }
    ensureApplication();
    if (QVCallRunningInstanceShow()) return ExitOK;
    complain("Quillvane is not running");
    return ExitNotRunning;
}

} // namespace qv::cli
