#include "disk/CatalogFlags.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <vector>

#include "disk/FileSystemVolumes.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "toolkit/PathText.h"

namespace qv {
namespace {

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

// A small text file as lines (without their newlines). nullopt when it is
// missing; an unreadable file is an error.
std::optional<std::vector<std::string>> readLines(const std::string& path, bool& failed) {
    failed = false;
    if (!exists(path)) return std::nullopt;
    QVError error;
    auto bytes = QVReadFile(path, &error);
    if (!bytes) {
        QV_LOG_ERROR(QVFormat("can't read '%s': %s", path.c_str(), error.description.c_str()));
        failed = true;
        return std::nullopt;
    }
    std::vector<std::string> lines;
    std::string line;
    for (uint8_t b : *bytes) {
        if (b == '\n') {
            lines.push_back(line);
            line.clear();
        } else {
            line.push_back(static_cast<char>(b));
        }
    }
    if (!line.empty()) lines.push_back(line);
    return lines;
}

// Replaces the file with `lines`, keeping its mode; removes it when nothing is left.
bool writeLines(const std::string& path, const std::vector<std::string>& lines) {
    if (lines.empty()) {
        if (::unlink(path.c_str()) == 0 || errno == ENOENT) return true;
        QV_LOG_ERROR(QVFormat("can't remove '%s': %s", path.c_str(), std::strerror(errno)));
        return false;
    }
    std::vector<uint8_t> bytes;
    for (const std::string& l : lines) {
        bytes.insert(bytes.end(), l.begin(), l.end());
        bytes.push_back('\n');
    }
    struct stat st;
    const unsigned mode = ::stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0644;
    QVError error;
    if (!QVWriteFileAtomically(path, bytes, &error, mode)) {
        QV_LOG_ERROR(QVFormat("can't write '%s': %s", path.c_str(), error.description.c_str()));
        return false;
    }
    return true;
}

// ------------------------------------------------------------------ invisibility

std::string hiddenListOf(const std::string& path) { return QVParentPath(path) + "/.hidden"; }

bool isListedHidden(const std::string& path) {
    bool failed = false;
    auto lines = readLines(hiddenListOf(path), failed);
    if (!lines) return false;
    const std::string name = QVLastPathComponent(path);
    for (const std::string& l : *lines)
        if (l == name) return true;
    return false;
}

bool setHidden(const std::string& path, bool hidden) {
    const std::string name = QVLastPathComponent(path);
    if (name.empty() || name == "/" || name.find('\n') != std::string::npos) {
        QV_LOG_ERROR(QVFormat("can't list '%s' as hidden: its name can't stand in a .hidden file", path.c_str()));
        return false;
    }
    if (!exists(path)) {
        QV_LOG_ERROR(QVFormat("can't change the visibility of '%s': %s", path.c_str(), std::strerror(ENOENT)));
        return false;
    }
    const std::string list = hiddenListOf(path);
    bool failed = false;
    std::vector<std::string> lines = readLines(list, failed).value_or(std::vector<std::string>{});
    if (failed) return false;
    bool listed = false;
    std::vector<std::string> kept;
    for (const std::string& l : lines) {
        if (l == name) {
            listed = true;
            if (!hidden) continue;
        }
        kept.push_back(l);
    }
    if (hidden == listed) return true;
    if (hidden) kept.push_back(name);
    return writeLines(list, kept);
}

// ------------------------------------------------------------------ custom icons

struct IconEntry {
    std::vector<std::string> lines;
    long groupLine = -1;  // the "[Desktop Entry]" line
    long iconLine = -1;   // its "Icon=" line
};

std::string strip(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return {};
    size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

// The key of an "Icon = value" line (a localized "Icon[de]=" is another key).
bool isIconLine(const std::string& line) {
    const std::string s = strip(line);
    if (s.rfind("Icon", 0) != 0) return false;
    const std::string rest = strip(s.substr(4));
    return !rest.empty() && rest[0] == '=';
}

std::string iconValue(const std::string& line) { return strip(line.substr(line.find('=') + 1)); }

IconEntry parseDesktopFile(std::vector<std::string> lines) {
    IconEntry entry;
    entry.lines = std::move(lines);
    bool inGroup = false;
    for (size_t i = 0; i < entry.lines.size(); ++i) {
        const std::string s = strip(entry.lines[i]);
        if (!s.empty() && s[0] == '[') {
            inGroup = s == "[Desktop Entry]";
            if (inGroup && entry.groupLine < 0) entry.groupLine = static_cast<long>(i);
            continue;
        }
        if (inGroup && entry.iconLine < 0 && isIconLine(s)) entry.iconLine = static_cast<long>(i);
    }
    return entry;
}

bool hasIcon(const std::string& folder) {
    bool failed = false;
    auto lines = readLines(folder + "/.directory", failed);
    if (!lines) return false;
    IconEntry entry = parseDesktopFile(std::move(*lines));
    return entry.iconLine >= 0 && !iconValue(entry.lines[static_cast<size_t>(entry.iconLine)]).empty();
}

// The folder's own icon image, by the name that fits where it is.
std::string iconImageFor(const std::string& folder) {
    for (const char* name : {QVVolumeIconFileName, QVFolderIconFileName})
        if (exists(folder + "/" + name)) return std::string("./") + name;
    return std::string("./") + (isVolumeAtURL(folder, nullptr) ? QVVolumeIconFileName : QVFolderIconFileName);
}

bool setCustomIcon(const std::string& folder, bool on) {
    struct stat st;
    if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        QV_LOG_ERROR(QVFormat("can't change the icon flag of '%s': not a folder", folder.c_str()));
        return false;
    }
    const std::string file = folder + "/.directory";
    bool failed = false;
    auto lines = readLines(file, failed);
    if (failed) return false;
    IconEntry entry = parseDesktopFile(lines.value_or(std::vector<std::string>{}));
    const bool has = entry.iconLine >= 0 && !iconValue(entry.lines[static_cast<size_t>(entry.iconLine)]).empty();
    if (has == on) return true;
    if (on) {
        const std::string line = "Icon=" + iconImageFor(folder);
        if (entry.iconLine >= 0) {
            entry.lines[static_cast<size_t>(entry.iconLine)] = line;
        } else if (entry.groupLine >= 0) {
            entry.lines.insert(entry.lines.begin() + entry.groupLine + 1, line);
        } else {
            entry.lines.insert(entry.lines.begin(), {"[Desktop Entry]", line});
        }
        return writeLines(file, entry.lines);
    }
    entry.lines.erase(entry.lines.begin() + entry.iconLine);
    // A file that said nothing but where the icon is goes with it.
    bool onlyGroup = true;
    for (const std::string& l : entry.lines) {
        const std::string s = strip(l);
        if (!s.empty() && s != "[Desktop Entry]") onlyGroup = false;
    }
    return writeLines(file, onlyGroup ? std::vector<std::string>{} : entry.lines);
}

} // namespace

uint16_t QVCatalogFlags(const std::string& path) {
    uint16_t flags = 0;
    if (isListedHidden(path)) flags |= kIsInvisible;
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && hasIcon(path)) flags |= kHasCustomIcon;
    return flags;
}

bool modifyCatalogFlag(uint16_t flag, const std::string& path, bool enable) {
    if (flag & ~(kHasCustomIcon | kIsInvisible))
        QV_LOG_WARN(QVFormat("flags 0x%x have no meaning here; left as they are", flag & ~(kHasCustomIcon | kIsInvisible)));
    flag &= kHasCustomIcon | kIsInvisible;
    if (flag == 0) return true;
    // Turning off clears only when every asked flag is on.
    if (!enable && (QVCatalogFlags(path) & flag) != flag) return true;
    bool ok = true;
    if (flag & kIsInvisible) ok = setHidden(path, enable) && ok;
    if (flag & kHasCustomIcon) ok = setCustomIcon(path, enable) && ok;
    return ok;
}

bool modifyCatologInfoAtPathIsVisible(const std::string& path, bool isVisible) {
    return modifyCatalogFlag(kIsInvisible, path, !isVisible);
}

bool modifyCatologInfoAtPathHasCustomIcon(const std::string& path, bool hasCustomIcon) {
    return modifyCatalogFlag(kHasCustomIcon, path, hasCustomIcon);
}

bool modifyCatologInfoAtURL(const std::string& path, bool hasCustomIcon) {
    return modifyCatalogFlag(kHasCustomIcon, path, hasCustomIcon);
}

bool folderHasCustomIcon(const std::string& path) { return (QVCatalogFlags(path) & kHasCustomIcon) != 0; }

} // namespace qv
