#include "image/ImageBundle.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <openssl/rand.h>
#include <openssl/sha.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "image/BandStore.h"
#include "toolkit/AtomicFile.h"
#include "toolkit/Log.h"
#include "vault/PropertyList.h"
#include "vault/PropertyListGuard.h"
#include "vault/QVCrypto.h"

namespace qv::image {

namespace {

constexpr const char* kVersionKey = "format-version";
constexpr const char* kSizeKey = "size";
constexpr const char* kBandSizeKey = "band-size";
constexpr const char* kSectorSizeKey = "sector-size";
constexpr const char* kEncryptionKey = "encryption";

// The scrypt container: "scrypt", version 0, parameters, salt, header checksum,
// header MAC (96 bytes), the ciphertext, a trailing MAC (32 bytes).
constexpr size_t kContainerOverhead = 128;
// No Info.plist is anywhere near this big; a bigger file is not ours.
constexpr size_t kMaxInfoSize = 1 << 20;

std::optional<Bytes> readSmallFile(int dirFd, const char* name, size_t limit, int* err) {
    int fd = ::openat(dirFd, name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        *err = errno;
        return std::nullopt;
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || uint64_t(st.st_size) > limit) {
        *err = S_ISREG(st.st_mode) ? EFBIG : EINVAL;
        ::close(fd);
        return std::nullopt;
    }
    Bytes bytes(size_t(st.st_size));
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += size_t(n);
    }
    ::close(fd);
    bytes.resize(done);
    *err = 0;
    return bytes;
}

} // namespace

Bytes infoPlistBytes(const ImageInfo& info) {
    Dict d;
    d[kVersionKey] = Value(static_cast<long long>(info.formatVersion));
    d[kSizeKey] = Value(static_cast<unsigned long long>(info.size));
    d[kBandSizeKey] = Value(static_cast<unsigned long long>(kBandSize));
    d[kSectorSizeKey] = Value(static_cast<unsigned long long>(kSectorSize));
    d[kEncryptionKey] = Value(std::string(encryptionName(info.encryption)));
    auto xml = QVPropertyListToXML(Value::newDict(std::move(d)));
    return xml ? *xml : Bytes{};
}

std::optional<ImageInfo> parseInfoPlist(const Bytes& bytes, std::string* why) {
    auto fail = [&](const std::string& text) -> std::optional<ImageInfo> {
        *why = text;
        return std::nullopt;
    };
    if (bytes.empty()) return fail("empty");
    // Info.plist is XML: a binary one is as unusable as any other damage.
    const std::string problem =
        QVPropertyListProblem(bytes.data(), bytes.size(), QVPropertyListFormat::XML, QVPlainPropertyListLimits);
    if (!problem.empty()) return fail("not an XML property list: " + problem);
    auto value = QVPropertyListFromXMLData(bytes, nullptr);
    if (!value) return fail("not a property list");
    DictRef dict = value->toDict();
    if (!dict) return fail("not a dictionary");
    const Value version = QVDictGet(*dict, kVersionKey);
    const Value size = QVDictGet(*dict, kSizeKey);
    const Value bandSize = QVDictGet(*dict, kBandSizeKey);
    const Value sectorSize = QVDictGet(*dict, kSectorSizeKey);
    const Value encryption = QVDictGet(*dict, kEncryptionKey);
    if (version.kind() != Value::Kind::Int) return fail("no format version");
    if (version.toInt() != kFormatVersion)
        return fail(QVFormat("format version %lld, this program reads %lld", static_cast<long long>(version.toInt()),
                             static_cast<long long>(kFormatVersion)));
    if (size.kind() != Value::Kind::Int || size.toInt() <= 0 || uint64_t(size.toInt()) > kMaxDeclaredSize ||
        uint64_t(size.toInt()) % kSectorSize != 0)
        return fail("bad size");
    if (bandSize.kind() != Value::Kind::Int || uint64_t(bandSize.toInt()) != kBandSize) return fail("bad band size");
    if (sectorSize.kind() != Value::Kind::Int || uint64_t(sectorSize.toInt()) != kSectorSize)
        return fail("bad sector size");
    ImageInfo info;
    info.formatVersion = version.toInt();
    info.size = uint64_t(size.toInt());
    if (encryption.isString() && encryption.toString() == "AES-256")
        info.encryption = Encryption::AES256;
    else if (encryption.isString() && encryption.toString() == "AES-128")
        info.encryption = Encryption::AES128;
    else
        return fail("unknown encryption");
    return info;
}

bool makeDiskKey(Encryption encryption, SecureBytes* key, QVError* error) {
    const size_t n = xtsKeyLength(encryption);
    key->resize(n);
    for (int attempt = 0; attempt < 8; ++attempt) {
        if (RAND_bytes(key->data(), int(n)) != 1)
            return fail(error, QVImageExitFailure, "no random bytes for the disk key");
        // XTS needs two different AES keys.
        if (std::memcmp(key->data(), key->data() + n / 2, n / 2) != 0) return true;
    }
    return fail(error, QVImageExitFailure, "the random generator keeps repeating itself");
}

bool wrapDiskKey(const SecureBytes& key, const SecureBytes& password, Bytes* token, QVError* error) {
    Bytes plain(key.data(), key.data() + key.size());
    Bytes pw(password.data(), password.data() + password.size());
    // A caller that makes many images at once measures the machine once and
    // hands the parameters down, so that tokens made side by side don't carry
    // the cheaper parameters a busy machine would be measured at.
    std::optional<QVScryptParams> given;
    if (const char* text = std::getenv(QVImageScryptParamsVariable)) given = QVScryptParamsFromText(text);
    auto container = given ? QVCrypto::encrypt(plain, pw, *given) : QVCrypto::encrypt(plain, pw);
    QVWipe(plain);
    QVWipe(pw);
    if (!container) return fail(error, QVImageExitFailure, "cannot wrap the disk key");
    *token = std::move(*container);
    return true;
}

bool tokenLooksValid(const Bytes& token, Encryption encryption) {
    if (token.size() != kContainerOverhead + xtsKeyLength(encryption)) return false;
    if (std::memcmp(token.data(), "scrypt", 6) != 0 || token[6] != 0) return false;
    uint8_t hash[SHA256_DIGEST_LENGTH];
    SHA256(token.data(), 48, hash);
    return std::memcmp(hash, token.data() + 48, 16) == 0;
}

bool unwrapDiskKey(const Bytes& token, Encryption encryption, const SecureBytes& password, SecureBytes* key,
                   QVError* error) {
    if (!tokenLooksValid(token, encryption)) return fail(error, QVImageExitNotAnImage, "the image's token is damaged");
    SecureBytes out(token.size());
    size_t outLength = 0;
    // The time limit only guards against absurd parameters: a token we made
    // takes about a second.
    const int rc = scryptdec_buf(token.data(), token.size(), out.data(), &outLength, password.data(), password.size(),
                                 0, 0.5, 300.0);
    switch (rc) {
    case 0:
        break;
    case 11:
        return fail(error, QVImageExitWrongPassword, "wrong password");
    case 7:
    case 8:
        return fail(error, QVImageExitNotAnImage, "the image's token is damaged");
    case 9:
    case 10:
        return fail(error, QVImageExitNotAnImage,
                    "the image's token asks for more memory or time than this machine has");
    default:
        return fail(error, QVImageExitFailure, QVFormat("cannot unwrap the disk key (error %d)", rc));
    }
    const size_t n = xtsKeyLength(encryption);
    if (outLength != n || std::memcmp(out.data(), out.data() + n / 2, n / 2) == 0)
        return fail(error, QVImageExitNotAnImage, "the image's token holds no usable key");
    key->assign(out.data(), n);
    return true;
}

ImageBundle::~ImageBundle() { close(); }

void ImageBundle::close() {
    bandsFd_.reset();
    dirFd_.reset();
    locked_ = false;
}

bool ImageBundle::open(const std::string& path, QVError* error) {
    close();
    char resolved[PATH_MAX];
    if (!::realpath(path.c_str(), resolved)) {
        if (errno == ENOENT || errno == ENOTDIR)
            return fail(error, QVImageExitNotAnImage, "no image at '" + path + "'");
        return failErrno(error, errno, "cannot reach '" + path + "'");
    }
    struct stat st {};
    if (::stat(resolved, &st) != 0) return failErrno(error, errno, "cannot reach '" + path + "'");
    if (!S_ISDIR(st.st_mode))
        return fail(error, QVImageExitNotAnImage, "'" + path + "' is not an image (not a directory)");
    UniqueFd dirFd(::open(resolved, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dirFd) return failErrno(error, errno, "cannot open '" + path + "'");

    auto notAnImage = [&](const std::string& why) {
        return fail(error, QVImageExitNotAnImage, "'" + path + "' is not a usable image: " + why);
    };
    std::optional<ImageInfo> info;
    std::string whyPlist, whyBackup;
    for (const char* name : {"Info.plist", "Info.bckup"}) {
        std::string& why = std::strcmp(name, "Info.plist") == 0 ? whyPlist : whyBackup;
        int err = 0;
        auto bytes = readSmallFile(dirFd.get(), name, kMaxInfoSize, &err);
        if (!bytes) {
            why = err == ENOENT ? "missing" : std::strerror(err);
            continue;
        }
        info = parseInfoPlist(*bytes, &why);
        if (info) {
            if (std::strcmp(name, "Info.bckup") == 0)
                QV_LOG_WARN("Info.plist of " + std::string(resolved) + " unusable (" + whyPlist + "), using Info.bckup");
            break;
        }
    }
    if (!info) return notAnImage("Info.plist " + whyPlist + ", Info.bckup " + whyBackup);

    int err = 0;
    auto token = readSmallFile(dirFd.get(), "token", 4096, &err);
    if (!token) return notAnImage(err == ENOENT ? "no token" : "token unreadable");
    if (!tokenLooksValid(*token, info->encryption)) return notAnImage("damaged token");

    UniqueFd bandsFd(::openat(dirFd.get(), "bands", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
    if (!bandsFd) return notAnImage(errno == ENOENT ? "no bands directory" : "bands is not a directory");

    path_ = resolved;
    info_ = *info;
    token_ = std::move(*token);
    dirFd_ = std::move(dirFd);
    bandsFd_ = std::move(bandsFd);
    return true;
}

bool ImageBundle::lock(QVError* error) {
    if (locked_) return true;
    if (::flock(dirFd_.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) return fail(error, QVImageExitAttached, "'" + path_ + "' is already attached");
        return failErrno(error, errno, "cannot lock '" + path_ + "'");
    }
    locked_ = true;
    return true;
}

bool ImageBundle::lockedElsewhere() const {
    if (locked_) return false;
    // A descriptor of our own: a lock taken and dropped on it can't disturb anyone.
    const UniqueFd fd(::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

bool ImageBundle::writeInfo(const ImageInfo& info, QVError* error) {
    const Bytes bytes = infoPlistBytes(info);
    if (bytes.empty()) return fail(error, QVImageExitFailure, "cannot describe the image");
    QVError e;
    // The copy first: at every moment one of the two describes the image.
    for (const char* name : {"/Info.bckup", "/Info.plist"}) {
        if (!QVWriteFileAtomically(path_ + name, bytes, &e, 0600))
            return failErrno(error, int(e.code), "cannot write " + path_ + name);
    }
    info_ = info;
    return true;
}

uint64_t ImageBundle::storedBytes(uint64_t* bandCount) const {
    uint64_t total = 0, count = 0;
    int fd = ::dup(bandsFd_.get());
    if (fd < 0) return 0;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        ::close(fd);
        return 0;
    }
    ::rewinddir(dir);
    while (dirent* e = ::readdir(dir)) {
        if (!parseBandName(e->d_name)) continue;
        struct stat st {};
        if (::fstatat(bandsFd_.get(), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode)) {
            total += uint64_t(st.st_blocks) * 512;
            ++count;
        }
    }
    ::closedir(dir);
    if (bandCount) *bandCount = count;
    return total;
}

bool ImageBundle::trimBandsTo(uint64_t size, QVError* error) {
    int fd = ::dup(bandsFd_.get());
    if (fd < 0) return failErrno(error, errno, "cannot read the bands of '" + path_ + "'");
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        ::close(fd);
        return failErrno(error, errno, "cannot read the bands of '" + path_ + "'");
    }
    ::rewinddir(dir);
    std::vector<std::pair<std::string, uint64_t>> bands;
    while (dirent* e = ::readdir(dir))
        if (auto band = parseBandName(e->d_name)) bands.emplace_back(e->d_name, *band);
    ::closedir(dir);
    for (const auto& [name, band] : bands) {
        const uint64_t start = band * kBandSize;
        if (start >= size) {
            if (::unlinkat(bandsFd_.get(), name.c_str(), 0) != 0 && errno != ENOENT)
                return failErrno(error, errno, "cannot delete band " + name);
        } else if (start + kBandSize > size) {
            const UniqueFd file(::openat(bandsFd_.get(), name.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
            if (!file) return failErrno(error, errno, "cannot open band " + name);
            struct stat st {};
            int rc = 0;
            if (::fstat(file.get(), &st) == 0 && uint64_t(st.st_size) > size - start) {
                rc = ::ftruncate(file.get(), off_t(size - start));
                if (rc == 0) rc = ::fsync(file.get());
            }
            const int err = errno;
            if (rc != 0) return failErrno(error, err, "cannot cut band " + name);
        }
    }
    if (::fsync(bandsFd_.get()) != 0) return failErrno(error, errno, "cannot sync the bands of '" + path_ + "'");
    return true;
}

bool writeNewImageFiles(const std::string& dir, const ImageInfo& info, const Bytes& token, QVError* error) {
    QVError e;
    if (!QVWriteFileAtomically(dir + "/token", token, &e, 0600))
        return failErrno(error, int(e.code), "cannot write the token");
    const Bytes plist = infoPlistBytes(info);
    if (plist.empty()) return fail(error, QVImageExitFailure, "cannot describe the image");
    for (const char* name : {"/Info.plist", "/Info.bckup"})
        if (!QVWriteFileAtomically(dir + name, plist, &e, 0600))
            return failErrno(error, int(e.code), std::string("cannot write ") + (name + 1));
    if (::mkdir((dir + "/bands").c_str(), 0700) != 0) return failErrno(error, errno, "cannot make bands/");
    if (!QVSyncDirectory(dir, &e)) return failErrno(error, int(e.code), "cannot sync the new image");
    return true;
}

} // namespace qv::image
