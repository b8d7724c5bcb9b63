#include "disk/TreeCompare.h"

#include <acl/libacl.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/acl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

namespace qv::test {
namespace {

std::string aclText(const std::string& path, acl_type_t type) {
    acl_t acl = ::acl_get_file(path.c_str(), type);
    if (!acl) return {};
    std::string out;
    acl_entry_t entry;
    const bool any = ::acl_get_entry(acl, ACL_FIRST_ENTRY, &entry) == 1;
    if (any && (type == ACL_TYPE_DEFAULT || ::acl_equiv_mode(acl, nullptr) == 1)) {
        char* text = ::acl_to_any_text(acl, nullptr, ',', TEXT_NUMERIC_IDS);
        if (text) {
            out = text;
            ::acl_free(text);
        }
    }
    ::acl_free(acl);
    return out;
}

std::map<std::string, std::string> xattrsOf(const std::string& path) {
    std::map<std::string, std::string> out;
    ssize_t size = ::llistxattr(path.c_str(), nullptr, 0);
    if (size <= 0) return out;
    std::string names(static_cast<size_t>(size), '\0');
    size = ::llistxattr(path.c_str(), names.data(), names.size());
    if (size <= 0) return out;
    names.resize(static_cast<size_t>(size));
    for (size_t start = 0; start < names.size();) {
        std::string name(names.c_str() + start);
        start += name.size() + 1;
        if (name.empty() || name.rfind("system.", 0) == 0) continue;
        ssize_t n = ::lgetxattr(path.c_str(), name.c_str(), nullptr, 0);
        std::string value(n > 0 ? static_cast<size_t>(n) : 0, '\0');
        if (n > 0) n = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
        out[name] = n >= 0 ? value.substr(0, static_cast<size_t>(n)) : "<unreadable>";
    }
    return out;
}

void scanInto(const std::string& root, const std::string& rel, std::map<std::string, TreeEntry>& out) {
    const std::string dirPath = rel.empty() ? root : root + "/" + rel;
    DIR* dir = ::opendir(dirPath.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (struct dirent* d = ::readdir(dir)) {
        if (std::strcmp(d->d_name, ".") != 0 && std::strcmp(d->d_name, "..") != 0) names.emplace_back(d->d_name);
    }
    ::closedir(dir);
    for (const std::string& name : names) {
        const std::string childRel = rel.empty() ? name : rel + "/" + name;
        const std::string path = root + "/" + childRel;
        TreeEntry e;
        if (::lstat(path.c_str(), &e.st) != 0) continue;
        if (S_ISLNK(e.st.st_mode)) {
            std::string target(4096, '\0');
            ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
            e.linkTarget = target.substr(0, n > 0 ? static_cast<size_t>(n) : 0);
        } else {
            e.accessAcl = aclText(path, ACL_TYPE_ACCESS);
            if (S_ISDIR(e.st.st_mode)) e.defaultAcl = aclText(path, ACL_TYPE_DEFAULT);
        }
        e.xattrs = xattrsOf(path);
        out[childRel] = e;
        if (S_ISDIR(e.st.st_mode)) scanInto(root, childRel, out);
    }
}

std::string kindOf(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG: return "file";
    case S_IFDIR: return "directory";
    case S_IFLNK: return "symlink";
    case S_IFIFO: return "fifo";
    case S_IFSOCK: return "socket";
    case S_IFCHR: return "char device";
    case S_IFBLK: return "block device";
    }
    return "unknown";
}

std::string show(const std::string& rel) {
    std::string out = "'";
    for (unsigned char c : rel) {
        if (c == '\n') out += "\\n";
        else if (c < 0x20 || c >= 0x7f) out += "\\x" + std::string(1, "0123456789abcdef"[c >> 4]) + "0123456789abcdef"[c & 15];
        else out += static_cast<char>(c);
    }
    return out + "'";
}

// Compares the metadata two entries share whatever their kind.
void compareEntry(const std::string& label, const std::string& expectedPath, const std::string& actualPath,
                  const TreeEntry& x, const TreeEntry& y, const CompareOptions& options,
                  std::vector<std::string>& diffs) {
    auto differ = [&](const std::string& what, const std::string& a, const std::string& b) {
        diffs.push_back(label + ": " + what + " differs: expected " + a + ", got " + b);
    };
    if ((x.st.st_mode & S_IFMT) != (y.st.st_mode & S_IFMT)) {
        differ("kind", kindOf(x.st.st_mode), kindOf(y.st.st_mode));
        return;
    }
    if (!S_ISLNK(x.st.st_mode) && (x.st.st_mode & 07777) != (y.st.st_mode & 07777)) {
        std::ostringstream a, b;
        a << std::oct << (x.st.st_mode & 07777);
        b << std::oct << (y.st.st_mode & 07777);
        differ("mode", a.str(), b.str());
    }
    if (options.owners && (x.st.st_uid != y.st.st_uid || x.st.st_gid != y.st.st_gid))
        differ("owner", std::to_string(x.st.st_uid) + ":" + std::to_string(x.st.st_gid),
               std::to_string(y.st.st_uid) + ":" + std::to_string(y.st.st_gid));
    if (x.st.st_mtim.tv_sec != y.st.st_mtim.tv_sec ||
        (!options.wholeSeconds && x.st.st_mtim.tv_nsec != y.st.st_mtim.tv_nsec))
        differ("mtime", std::to_string(x.st.st_mtim.tv_sec) + "." + std::to_string(x.st.st_mtim.tv_nsec),
               std::to_string(y.st.st_mtim.tv_sec) + "." + std::to_string(y.st.st_mtim.tv_nsec));
    if (x.xattrs != y.xattrs) differ("extended attributes", std::to_string(x.xattrs.size()) + " of them",
                                     std::to_string(y.xattrs.size()) + " of them or other values");
    if (x.accessAcl != y.accessAcl) differ("access ACL", "'" + x.accessAcl + "'", "'" + y.accessAcl + "'");
    if (x.defaultAcl != y.defaultAcl) differ("default ACL", "'" + x.defaultAcl + "'", "'" + y.defaultAcl + "'");
    if (S_ISLNK(x.st.st_mode) && x.linkTarget != y.linkTarget) differ("link target", show(x.linkTarget), show(y.linkTarget));
    if ((S_ISCHR(x.st.st_mode) || S_ISBLK(x.st.st_mode)) && x.st.st_rdev != y.st.st_rdev)
        differ("device", std::to_string(x.st.st_rdev), std::to_string(y.st.st_rdev));
    if (S_ISREG(x.st.st_mode)) {
        if (x.st.st_size != y.st.st_size) {
            differ("size", std::to_string(x.st.st_size), std::to_string(y.st.st_size));
        } else if (readWhole(expectedPath) != readWhole(actualPath)) {
            diffs.push_back(label + ": contents differ");
        }
        // A sparse source must not come out filled (a little slack for file-system bookkeeping).
        if (y.st.st_blocks > x.st.st_blocks + 16)
            differ("allocated blocks", std::to_string(x.st.st_blocks), std::to_string(y.st.st_blocks));
        if (x.linkGroup != y.linkGroup) differ("hard-link group", show(x.linkGroup), show(y.linkGroup));
    }
}

void assignLinkGroups(std::map<std::string, TreeEntry>& tree) {
    std::map<std::pair<dev_t, ino_t>, std::string> first;
    for (auto& [rel, e] : tree) {
        if (!S_ISREG(e.st.st_mode) || e.st.st_nlink < 2) continue;
        auto [it, inserted] = first.emplace(std::make_pair(e.st.st_dev, e.st.st_ino), rel);
        e.linkGroup = it->second;
        (void)inserted;
    }
    // A file with other names only outside the tree has no group inside it.
    std::map<std::string, int> members;
    for (auto& [rel, e] : tree)
        if (!e.linkGroup.empty()) ++members[e.linkGroup];
    for (auto& [rel, e] : tree)
        if (!e.linkGroup.empty() && members[e.linkGroup] < 2) e.linkGroup.clear();
}

} // namespace

std::string readWhole(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return "<unreadable>";
    struct stat st;
    std::string out;
    if (::fstat(fd, &st) == 0) out.reserve(static_cast<size_t>(st.st_size));
    char buffer[1 << 16];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) break;
        out.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return out;
}

std::map<std::string, TreeEntry> scanTree(const std::string& root) {
    std::map<std::string, TreeEntry> out;
    scanInto(root, "", out);
    assignLinkGroups(out);
    return out;
}

std::vector<std::string> compareTrees(const std::string& expected, const std::string& actual,
                                      const CompareOptions& options) {
    std::vector<std::string> diffs;
    const auto x = scanTree(expected);
    const auto y = scanTree(actual);
    for (const auto& [rel, e] : x) {
        auto it = y.find(rel);
        if (it == y.end()) {
            diffs.push_back(show(rel) + ": missing");
            continue;
        }
        compareEntry(show(rel), expected + "/" + rel, actual + "/" + rel, e, it->second, options, diffs);
    }
    for (const auto& [rel, e] : y)
        if (!x.count(rel)) diffs.push_back(show(rel) + ": not expected");
    if (options.rootMetadata) {
        TreeEntry a, b;
        ::lstat(expected.c_str(), &a.st);
        ::lstat(actual.c_str(), &b.st);
        a.xattrs = xattrsOf(expected);
        b.xattrs = xattrsOf(actual);
        a.accessAcl = aclText(expected, ACL_TYPE_ACCESS);
        b.accessAcl = aclText(actual, ACL_TYPE_ACCESS);
        a.defaultAcl = aclText(expected, ACL_TYPE_DEFAULT);
        b.defaultAcl = aclText(actual, ACL_TYPE_DEFAULT);
        compareEntry("root", expected, actual, a, b, options, diffs);
    }
    return diffs;
}

} // namespace qv::test
