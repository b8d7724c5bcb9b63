#pragma once
// POSIX access control lists (libacl): reading, setting, adding and removing
// entries of an item's access ACL, and the copy of access and default ACLs for
// the copy engine. Texts are libacl's ("user:alice:rw-", "u:1000:r", "g::r-x").
#include <sys/acl.h>

#include <string>

namespace qv {

// An owned acl_t.
class QVAcl {
public:
    QVAcl() = default;
    explicit QVAcl(acl_t acl) : acl_(acl) {}
    QVAcl(QVAcl&& other) noexcept : acl_(other.acl_) { other.acl_ = nullptr; }
    QVAcl& operator=(QVAcl&& other) noexcept;
    QVAcl(const QVAcl&) = delete;
    QVAcl& operator=(const QVAcl&) = delete;
    ~QVAcl();

    acl_t get() const { return acl_; }
    // For the libacl calls that may move the list (acl_create_entry, acl_calc_mask).
    acl_t* address() { return &acl_; }
    explicit operator bool() const { return acl_ != nullptr; }
    // The long text form, one entry a line; empty for no list.
    std::string text() const;
    // Parses libacl's text form; an empty QVAcl when it can't.
    static QVAcl fromText(const std::string& text);

private:
    acl_t acl_ = nullptr;
};

// The access ACL of the item (which on Linux always holds at least the owner,
// group and other entries of its mode). Empty, and logged, when it can't be
// read; empty without a log for a symbolic link, which has none of its own.
QVAcl aclsForFileAtPath(const std::string& path);

// Replaces the item's access ACL. 0 or the errno.
int setACL(const QVAcl& acl, const std::string& path);

// Adds the entries of `text` to the item's access ACL: an entry for a user or
// group that is already there gets the new permissions, others are added; the
// mask is recomputed. 0 or the errno (logged).
int addACL(const std::string& text, const std::string& path);

// Removes every named user or group entry that holds all of `perm` (ACL_READ,
// ACL_WRITE, ACL_EXECUTE, or'ed) and has the tag `tag` (ACL_USER, ACL_GROUP),
// writing the list back after each removal. 0 or the errno (logged).
int removeACLsAtPath(const std::string& path, acl_perm_t perm, acl_tag_t tag);

// Whether the item has entries beyond those of its mode (access or default).
bool fileHasACLs(const std::string& path);
// Whether some entry holds all of `perm` and has the tag `tag`.
bool fileHasACLs(const std::string& path, acl_perm_t perm, acl_tag_t tag);

// Removes the named entries that `text` names (by tag and user or group; the
// permissions in the text don't matter). 0, ENOENT when none of them was
// there, or the errno (logged).
int removeACL(const std::string& text, const std::string& path);

// Copies the access ACL of the open item `srcFd` to `dstFd` when it has more
// than its mode says, and, for directories, the default ACL. A destination
// file system without ACLs loses them with a warning (the mode bits, which
// the caller copies, are never more open than the ACL was). 0 or the errno.
int QVCopyAcls(int srcFd, int dstFd, bool directory);

} // namespace qv
