#include "disk/TreeCompare.h"

#include <acl/libacl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

namespace qv::test {
namespace {

struct TreeEntry {
    struct stat st {};
    std::string linkTarget;                     // symbolic links
    std::map<std::string, std::string> xattrs;  // every name but "system.*"
    std::string accessAcl;                      // extended access ACL text, empty when the mode says all
    std::string defaultAcl;                     // directories
    std::string linkGroup;                      // for a file with several names in the tree: the first of them
};

std::string aclText(const std::string& path, acl_type_t type) {
    acl_t acl = ::acl_get_file(path.c_str(), type);
    if (!acl) return {};
    std::string out;
    acl_entry_t entry;
    if (::acl_get_entry(acl, ACL_FIRST_ENTRY, &entry) == 1 &&
        (type == ACL_TYPE_DEFAULT || ::acl_equiv_mode(acl, nullptr) == 1)) {
        if (char* text = ::acl_to_any_text(acl, nullptr, ',', TEXT_NUMERIC_IDS)) {
            out = text;
            ::acl_free(text);
        }
    }
    ::acl_free(acl);
    return out;
}

std::map<std::string, std::string> xattrsOf(const std::string& path) {
    std::map<std::string, std::string> out;
    std::string names(65536, '\0');
    const ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
    for (size_t start = 0; size > 0 && start < static_cast<size_t>(size);) {
        std::string name(names.c_str() + start);
        start += name.size() + 1;
        if (name.empty() || name.rfind("system.", 0) == 0) continue;
        std::string value(65536, '\0');
        const ssize_t n = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
        out[name] = n >= 0 ? value.substr(0, static_cast<size_t>(n)) : "<unreadable>";
    }
    return out;
}

TreeEntry entryAt(const std::string& path) {
    TreeEntry e;
    ::lstat(path.c_str(), &e.st);
    if (S_ISLNK(e.st.st_mode)) {
        std::string target(4096, '\0');
        const ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
        e.linkTarget = target.substr(0, n > 0 ? static_cast<size_t>(n) : 0);
    } else {
        e.accessAcl = aclText(path, ACL_TYPE_ACCESS);
        if (S_ISDIR(e.st.st_mode)) e.defaultAcl = aclText(path, ACL_TYPE_DEFAULT);
    }
    e.xattrs = xattrsOf(path);
    return e;
}

// Every entry below `root` by path relative to it, with hard-link groups assigned.
std::map<std::string, TreeEntry> scanTree(const std::string& root) {
    namespace fs = std::filesystem;
    std::map<std::string, TreeEntry> tree;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        const std::string path = it->path().string();
        tree[path.substr(path[root.size()] == '/' ? root.size() + 1 : root.size())] = entryAt(path);
    }
    std::map<std::pair<dev_t, ino_t>, std::string> first;
    std::map<std::string, int> members;
    for (auto& [rel, e] : tree) {
        if (!S_ISREG(e.st.st_mode) || e.st.st_nlink < 2) continue;
        e.linkGroup = first.emplace(std::make_pair(e.st.st_dev, e.st.st_ino), rel).first->second;
        ++members[e.linkGroup];
    }
    // A file with other names only outside the tree has no group inside it.
    for (auto& [rel, e] : tree)
        if (!e.linkGroup.empty() && members[e.linkGroup] < 2) e.linkGroup.clear();
    return tree;
}

std::string octal(unsigned mode) {
    std::ostringstream out;
    out << std::oct << mode;
    return out.str();
}

std::string show(const std::string& rel) { return "'" + rel + "'"; }

void compareEntry(const std::string& label, const std::string& expectedPath, const std::string& actualPath,
                  const TreeEntry& x, const TreeEntry& y, const CompareOptions& options,
                  std::vector<std::string>& diffs) {
    auto differ = [&](const std::string& what, const auto& a, const auto& b) {
        std::ostringstream line;
        line << label << ": " << what << " differs: expected " << a << ", got " << b;
        diffs.push_back(line.str());
    };
    if ((x.st.st_mode & S_IFMT) != (y.st.st_mode & S_IFMT)) return differ("kind", x.st.st_mode >> 12, y.st.st_mode >> 12);
    if (!S_ISLNK(x.st.st_mode) && (x.st.st_mode & 07777) != (y.st.st_mode & 07777))
        differ("mode", octal(x.st.st_mode & 07777), octal(y.st.st_mode & 07777));
    if (options.owners && (x.st.st_uid != y.st.st_uid || x.st.st_gid != y.st.st_gid))
        differ("owner", std::to_string(x.st.st_uid) + ":" + std::to_string(x.st.st_gid),
               std::to_string(y.st.st_uid) + ":" + std::to_string(y.st.st_gid));
    if (x.st.st_mtim.tv_sec != y.st.st_mtim.tv_sec ||
        (!options.wholeSeconds && x.st.st_mtim.tv_nsec != y.st.st_mtim.tv_nsec))
        differ("mtime", std::to_string(x.st.st_mtim.tv_sec) + "." + std::to_string(x.st.st_mtim.tv_nsec),
               std::to_string(y.st.st_mtim.tv_sec) + "." + std::to_string(y.st.st_mtim.tv_nsec));
    if (x.xattrs != y.xattrs) differ("extended attributes (count)", x.xattrs.size(), y.xattrs.size());
    if (x.accessAcl != y.accessAcl) differ("access ACL", "'" + x.accessAcl + "'", "'" + y.accessAcl + "'");
    if (x.defaultAcl != y.defaultAcl) differ("default ACL", "'" + x.defaultAcl + "'", "'" + y.defaultAcl + "'");
    if (x.linkTarget != y.linkTarget) differ("link target", show(x.linkTarget), show(y.linkTarget));
    if (!S_ISREG(x.st.st_mode)) return;
    if (x.st.st_size != y.st.st_size) differ("size", x.st.st_size, y.st.st_size);
    else if (readWhole(expectedPath) != readWhole(actualPath)) diffs.push_back(label + ": contents differ");
    // A sparse source must not come out filled. Slack for the file system's
    // bookkeeping: a file on an image disk maps its blocks through indirect
    // blocks, one 4 KiB block for each 4 MiB of data and a few above them.
    const blkcnt_t slack = 16 + 8 * (x.st.st_blocks / 8192 + 2);
    if (y.st.st_blocks > x.st.st_blocks + slack) differ("allocated blocks", x.st.st_blocks, y.st.st_blocks);
    if (x.linkGroup != y.linkGroup) differ("hard-link group", show(x.linkGroup), show(y.linkGroup));
}

} // namespace

std::string readWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "<unreadable>";
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> compareTrees(const std::string& expected, const std::string& actual,
                                      const CompareOptions& options) {
    std::vector<std::string> diffs;
    const auto x = scanTree(expected);
    const auto y = scanTree(actual);
    for (const auto& [rel, e] : x) {
        auto it = y.find(rel);
        if (it == y.end()) diffs.push_back(show(rel) + ": missing");
        else compareEntry(show(rel), expected + "/" + rel, actual + "/" + rel, e, it->second, options, diffs);
    }
    for (const auto& [rel, e] : y)
        if (!x.count(rel)) diffs.push_back(show(rel) + ": not expected");
    if (options.rootMetadata)
        compareEntry("root", expected, actual, entryAt(expected), entryAt(actual), options, diffs);
    return diffs;
}

} // namespace qv::test
