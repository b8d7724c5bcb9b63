#pragma once
// Loop devices and the files behind them, as sysfs tells them.
#include <string>
#include <vector>

namespace qv {

// The file behind a loop device ("/dev/loop3"); empty when it has none. A file
// unlinked since it was attached is named by its old path.
std::string QVLoopBackingFile(const std::string& device);

// The same from the text of /sys/block/<loop>/loop/backing_file: its first
// line, without the kernel's " (deleted)" mark.
std::string QVLoopBackingFileFromSysfs(const std::string& text);

// Every loop device whose backing file is `file`.
std::vector<std::string> QVLoopDevicesOf(const std::string& file);

} // namespace qv
