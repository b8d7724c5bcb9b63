#include "sys/LoopDevices.h"

#include <dirent.h>

#include <cstring>
#include <memory>

#include "sys/ProcFiles.h"
#include "toolkit/PathText.h"

namespace qv {

std::string QVLoopBackingFileFromSysfs(const std::string& text) {
    return QVWithoutDeletedMark(text.substr(0, text.find('\n')));
}

std::string QVLoopBackingFile(const std::string& device) {
    std::string text;
    if (!QVReadProcFile("/sys/block/" + QVLastPathComponent(device) + "/loop/backing_file", text, 8192)) return {};
    return QVLoopBackingFileFromSysfs(text);
}

std::vector<std::string> QVLoopDevicesOf(const std::string& file) {
    std::vector<std::string> devices;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir("/sys/block"), &::closedir);
    if (!dir) return devices;
    while (dirent* e = ::readdir(dir.get())) {
        if (std::strncmp(e->d_name, "loop", 4) != 0) continue;
        const std::string device = std::string("/dev/") + e->d_name;
        if (QVLoopBackingFile(device) == file) devices.push_back(device);
    }
    return devices;
}

} // namespace qv
