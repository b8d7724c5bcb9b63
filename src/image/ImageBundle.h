#pragma once
// An image on disk: the directory with Info.plist (and its copy Info.bckup),
// the token holding the wrapped disk key, and bands/. Opening checks all of it;
// the image's lock tells whether some qv-image process serves its disk.
#include <cstdint>
#include <optional>
#include <string>

#include "image/ImageTool.h"
#include "sys/UniqueFd.h"
#include "vault/Value.h"

namespace qv::image {

struct ImageInfo {
    int64_t formatVersion = kFormatVersion;
    uint64_t size = 0;  // virtual disk, bytes
    Encryption encryption = Encryption::AES256;
};

// Info.plist as written: an XML property list.
Bytes infoPlistBytes(const ImageInfo& info);
// nullopt with *why when the bytes are not a readable description of an image.
std::optional<ImageInfo> parseInfoPlist(const Bytes& bytes, std::string* why);

// A fresh random disk key for AES-XTS (its two halves differ).
bool makeDiskKey(Encryption encryption, SecureBytes* key, QVError* error);
// The token: the key in the project's scrypt container under the password.
bool wrapDiskKey(const SecureBytes& key, const SecureBytes& password, Bytes* token, QVError* error);
// Whether the token can be a wrapped key of this encryption at all (length,
// magic, version, header checksum), without the password.
bool tokenLooksValid(const Bytes& token, Encryption encryption);
// The key from the token: QVImageExitWrongPassword for a wrong password,
// QVImageExitNotAnImage for a damaged token.
bool unwrapDiskKey(const Bytes& token, Encryption encryption, const SecureBytes& password, SecureBytes* key,
                   QVError* error);

class ImageBundle {
public:
    ImageBundle() = default;
    ~ImageBundle();
    ImageBundle(const ImageBundle&) = delete;
    ImageBundle& operator=(const ImageBundle&) = delete;

    // Opens an existing image; fails with QVImageExitNotAnImage when the path holds
    // none or a damaged one. Nothing in it is changed.
    bool open(const std::string& path, QVError* error);

    const std::string& path() const { return path_; }  // absolute, symbolic links resolved
    const ImageInfo& info() const { return info_; }
    const Bytes& token() const { return token_; }
    int directoryFd() const { return dirFd_.get(); }
    int bandsFd() const { return bandsFd_.get(); }

    // Takes the image's lock, held for as long as this process (or a child
    // that inherits the descriptor) serves the disk. QVImageExitAttached when taken.
    bool lock(QVError* error);
    // True when another process holds the lock; does not keep it.
    bool lockedElsewhere() const;
    // Gives up this process's descriptors; the lock stays with any child that
    // inherited them.
    void close();

    bool unwrapKey(const SecureBytes& password, SecureBytes* key, QVError* error) const {
        return unwrapDiskKey(token_, info_.encryption, password, key, error);
    }
    // Replaces Info.bckup, then Info.plist, each atomically.
    bool writeInfo(const ImageInfo& info, QVError* error);
    // Bytes allocated on disk by the band files, and how many there are.
    uint64_t storedBytes(uint64_t* bandCount = nullptr) const;
    // Deletes bands that lie wholly beyond `size` and cuts the last one down.
    bool trimBandsTo(uint64_t size, QVError* error);

private:
    std::string path_;
    ImageInfo info_;
    Bytes token_;
    UniqueFd dirFd_;
    UniqueFd bandsFd_;
    bool locked_ = false;
};

// Writes a new image's header files into an empty directory: token, Info.plist,
// Info.bckup and bands/.
bool writeNewImageFiles(const std::string& dir, const ImageInfo& info, const Bytes& token, QVError* error);

} // namespace qv::image
