#pragma once
// What the DiskMaster operations share: the records of a face, the image
// password buffer that is scrubbed whatever happens, and running the disk-image
// helper. Progress goes to the face through vault/FacePresentation.h.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "toolkit/QVError.h"
#include "vault/QVRecord.h"
#include "vault/ScryptParams.h"
#include "vault/Value.h"

namespace qv::diskmaster {

// The records an operation works on; any of them may be null.
struct FaceParts {
    QVRecordRef face;
    QVRecordRef folder;
    QVRecordRef diskinfo;
    QVRecordRef storage;
    std::string mountpoint;  // the folder's own path
    std::string imagePath;   // diskinfo.url
};
FaceParts partsOf(const QVRecordRef& face);

// The image password in plain form, for one run of the helper. Filled from
// the folder's `password` under the Folder Set's password; whatever path the
// operation takes, the destructor overwrites the bytes with random ones and
// then with zeros before they are freed.
class ImagePassword {
public:
    ImagePassword(const QVRecordRef& face, const QVRecordRef& folder) : face_(face), folder_(folder) {}
    ~ImagePassword();
    ImagePassword(const ImagePassword&) = delete;
    ImagePassword& operator=(const ImagePassword&) = delete;

    // False with error 1004 when the folder has no password, no Folder Set to
    // open it with, or the password can't be decrypted.
    bool fill(QVError* error);
    std::span<const uint8_t> bytes() const { return {buffer_.data(), buffer_.size()}; }

private:
    QVRecordRef face_;
    QVRecordRef folder_;
    Bytes buffer_;
};

// Runs qv-image with these arguments. With `input` the bytes go to its standard
// input; without, its standard input is an empty pipe (never our terminal).
// With `tokenParameters` the helper is told (in its environment, through
// env(1), so that its own arguments stay word for word) to make a new image's
// token under those scrypt parameters.
std::optional<std::vector<uint8_t>> runImageTool(const std::vector<std::string>& args,
                                                 std::optional<std::span<const uint8_t>> input, QVError* error,
                                                 const QVScryptParams* tokenParameters = nullptr);

// The text of a helper's output, "" when it isn't text.
std::string outputText(const std::optional<std::vector<uint8_t>>& output);

// A helper's one-line message without its trailing newline.
std::string trimmedMessage(const std::string& text);

} // namespace qv::diskmaster
