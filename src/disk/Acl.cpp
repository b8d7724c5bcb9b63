#include "disk/Acl.h"

#include <acl/libacl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "toolkit/Log.h"

namespace qv {

QVAcl& QVAcl::operator=(QVAcl&& other) noexcept {
    if (this != &other) {
        if (acl_) ::acl_free(acl_);
        acl_ = std::exchange(other.acl_, nullptr);
    }
    return *this;
}

QVAcl::~QVAcl() {
    if (acl_) ::acl_free(acl_);
}

std::string QVAcl::text() const {
    if (!acl_) return {};
    ssize_t length = 0;
    char* text = ::acl_to_text(acl_, &length);
    if (!text) return {};
    std::string out(text, static_cast<size_t>(length));
    ::acl_free(text);
    return out;
}

QVAcl QVAcl::fromText(const std::string& text) { return QVAcl(::acl_from_text(text.c_str())); }

namespace {

bool holdsAll(acl_entry_t entry, acl_perm_t perm) {
    acl_permset_t permset;
    if (::acl_get_permset(entry, &permset) != 0) return false;
    for (acl_perm_t bit : {ACL_READ, ACL_WRITE, ACL_EXECUTE}) {
        if ((perm & bit) && ::acl_get_perm(permset, bit) != 1) return false;
    }
    return true;
}

acl_tag_t tagOf(acl_entry_t entry) {
    acl_tag_t tag = ACL_UNDEFINED_TAG;
    ::acl_get_tag_type(entry, &tag);
    return tag;
}

// The user or group an entry names; only meaningful for ACL_USER and ACL_GROUP.
id_t qualifierOf(acl_entry_t entry) {
    void* q = ::acl_get_qualifier(entry);
    if (!q) return static_cast<id_t>(-1);
    id_t id = *static_cast<id_t*>(q);
    ::acl_free(q);
    return id;
}

bool sameSubject(acl_entry_t a, acl_entry_t b) {
    acl_tag_t tag = tagOf(a);
    if (tag != tagOf(b)) return false;
    if (tag == ACL_USER || tag == ACL_GROUP) return qualifierOf(a) == qualifierOf(b);
    return true;
}

// Calls `visit` for each entry until it returns false.
template <typename Visit>
void forEachEntry(acl_t acl, Visit visit) {
    acl_entry_t entry;
    for (int which = ACL_FIRST_ENTRY; ::acl_get_entry(acl, which, &entry) == 1; which = ACL_NEXT_ENTRY) {
        if (!visit(entry)) return;
    }
}

// After named entries came or went: a mask over them, or none when none are left,
// so that an ACL without named entries is once more just the mode.
int fixMask(acl_t* acl) {
    bool named = false;
    acl_entry_t mask = nullptr;
    forEachEntry(*acl, [&](acl_entry_t e) {
        acl_tag_t tag = tagOf(e);
        if (tag == ACL_USER || tag == ACL_GROUP) named = true;
        if (tag == ACL_MASK) mask = e;
        return true;
    });
    if (named) return ::acl_calc_mask(acl) == 0 ? 0 : errno;
    if (mask && ::acl_delete_entry(*acl, mask) != 0) return errno;
    return 0;
}

int writeAccessAcl(const std::string& path, acl_t acl) {
    if (::acl_valid(acl) != 0) return EINVAL;
    return ::acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl) == 0 ? 0 : errno;
}

bool isSymlink(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

bool unsupported(int err) { return err == ENOTSUP || err == EOPNOTSUPP; }

} // namespace

QVAcl aclsForFileAtPath(const std::string& path) {
    if (isSymlink(path)) return QVAcl();
    QVAcl acl(::acl_get_file(path.c_str(), ACL_TYPE_ACCESS));
    if (!acl) QV_LOG_ERROR(QVFormat("failed to read the ACL of: %s: %s", path.c_str(), std::strerror(errno)));
    return acl;
}

int setACL(const QVAcl& acl, const std::string& path) {
    if (!acl) return EINVAL;
    int err = writeAccessAcl(path, acl.get());
    if (err != 0)
        QV_LOG_ERROR(QVFormat("failed to set ACL (%s) on: '%s': %s", acl.text().c_str(), path.c_str(),
                              std::strerror(err)));
    return err;
}

int addACL(const std::string& text, const std::string& path) {
    auto failed = [&](int err) {
        QV_LOG_ERROR(QVFormat("failed to add ACL (%s) to: '%s': %s", text.c_str(), path.c_str(), std::strerror(err)));
        return err;
    };
    QVAcl parsed = QVAcl::fromText(text);
    if (!parsed) return failed(EINVAL);
    if (isSymlink(path)) return failed(ENOTSUP);
    QVAcl current(::acl_get_file(path.c_str(), ACL_TYPE_ACCESS));
    if (!current) return failed(errno);
    int err = 0;
    forEachEntry(parsed.get(), [&](acl_entry_t add) {
        acl_entry_t target = nullptr;
        forEachEntry(current.get(), [&](acl_entry_t e) {
            if (!sameSubject(e, add)) return true;
            target = e;
            return false;
        });
        if (!target && ::acl_create_entry(current.address(), &target) != 0) {
            err = errno;
            return false;
        }
        if (::acl_copy_entry(target, add) != 0) {
            err = errno;
            return false;
        }
        return true;
    });
    if (err == 0) err = fixMask(current.address());
    if (err == 0) err = writeAccessAcl(path, current.get());
    return err == 0 ? 0 : failed(err);
}

int removeACLsAtPath(const std::string& path, acl_perm_t perm, acl_tag_t tag) {
    auto failed = [&](int err) {
        QV_LOG_ERROR(QVFormat("failed to remove ACL (%d|%d) from: %s: %s", static_cast<int>(perm),
                              static_cast<int>(tag), path.c_str(), std::strerror(err)));
        return err;
    };
    QVAcl acl(::acl_get_file(path.c_str(), ACL_TYPE_ACCESS));
    if (!acl) return failed(errno);
    // The owner, owning group and others can't leave an access ACL.
    if (tag != ACL_USER && tag != ACL_GROUP) return 0;
    for (;;) {
        acl_entry_t victim = nullptr;
        forEachEntry(acl.get(), [&](acl_entry_t e) {
            if (tagOf(e) != tag || !holdsAll(e, perm)) return true;
            victim = e;
            return false;
        });
        if (!victim) return 0;
        QVLogInfo(QVFormat("removing ACL (%d|%d) from: %s", static_cast<int>(perm), static_cast<int>(tag),
                           path.c_str()));
        if (::acl_delete_entry(acl.get(), victim) != 0) {
            int err = errno;
            QV_LOG_ERROR(QVFormat("acl_delete_entry resulted in: %d", err));
            return failed(err);
        }
        int err = fixMask(acl.address());
        if (err == 0) err = writeAccessAcl(path, acl.get());
        if (err != 0) {
            QV_LOG_ERROR(QVFormat("acl_set_file resulted in: %d", err));
            return failed(err);
        }
    }
}

bool fileHasACLs(const std::string& path) { return ::acl_extended_file(path.c_str()) == 1; }

bool fileHasACLs(const std::string& path, acl_perm_t perm, acl_tag_t tag) {
    QVAcl acl(::acl_get_file(path.c_str(), ACL_TYPE_ACCESS));
    if (!acl) return false;
    bool found = false;
    forEachEntry(acl.get(), [&](acl_entry_t e) {
        found = tagOf(e) == tag && holdsAll(e, perm);
        return !found;
    });
    return found;
}

int removeACL(const std::string& text, const std::string& path) {
    auto failed = [&](int err) {
        QV_LOG_ERROR(QVFormat("failed to remove ACL (%s) from: '%s': %s", text.c_str(), path.c_str(),
                              std::strerror(err)));
        return err;
    };
    QVAcl parsed = QVAcl::fromText(text);
    if (!parsed) return failed(EINVAL);
    QVAcl acl(::acl_get_file(path.c_str(), ACL_TYPE_ACCESS));
    if (!acl) return failed(errno);
    bool removed = false;
    int err = 0;
    forEachEntry(parsed.get(), [&](acl_entry_t wanted) {
        acl_tag_t tag = tagOf(wanted);
        if (tag != ACL_USER && tag != ACL_GROUP) return true;
        acl_entry_t victim = nullptr;
        forEachEntry(acl.get(), [&](acl_entry_t e) {
            if (!sameSubject(e, wanted)) return true;
            victim = e;
            return false;
        });
        if (!victim) return true;
        if (::acl_delete_entry(acl.get(), victim) != 0) {
            err = errno;
            return false;
        }
        removed = true;
        return true;
    });
    if (err != 0) return failed(err);
    if (!removed) return ENOENT;
    err = fixMask(acl.address());
    if (err == 0) err = writeAccessAcl(path, acl.get());
    return err == 0 ? 0 : failed(err);
}

int QVCopyAcls(int srcFd, int dstFd, bool directory) {
    QVAcl access(::acl_get_fd(srcFd));
    if (!access) return unsupported(errno) ? 0 : errno;
    if (::acl_equiv_mode(access.get(), nullptr) == 1) {
        if (::acl_set_fd(dstFd, access.get()) != 0) {
            int err = errno;
            if (!unsupported(err)) return err;
            QV_LOG_WARN("the destination keeps no ACLs; only the mode bits are copied");
        }
    }
    if (!directory) return 0;
    // libacl reaches default ACLs only by path: the descriptors' own paths serve.
    const std::string src = "/proc/self/fd/" + std::to_string(srcFd);
    const std::string dst = "/proc/self/fd/" + std::to_string(dstFd);
    QVAcl defaults(::acl_get_file(src.c_str(), ACL_TYPE_DEFAULT));
    if (!defaults) return unsupported(errno) ? 0 : errno;
    acl_entry_t first;
    if (::acl_get_entry(defaults.get(), ACL_FIRST_ENTRY, &first) != 1) return 0;  // none
    if (::acl_set_file(dst.c_str(), ACL_TYPE_DEFAULT, defaults.get()) != 0) {
        int err = errno;
        if (!unsupported(err)) return err;
        QV_LOG_WARN("the destination keeps no default ACLs");
    }
    return 0;
}

} // namespace qv
