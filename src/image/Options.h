#pragma once
// The words of a verb: options (flags and options with a value, in any order)
// and the one positional argument; sizes; the password on standard input.
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "image/ImageTool.h"

namespace qv::image {

struct ParsedArguments {
    std::set<std::string> flags;
    std::map<std::string, std::string> values;
    std::string positional;  // the image, or the target of detach

    bool has(const std::string& flag) const { return flags.count(flag) != 0; }
    const std::string* value(const std::string& option) const {
        auto it = values.find(option);
        return it == values.end() ? nullptr : &it->second;
    }
};

// `flags` are options on their own, `valued` take the next word as their value.
// Exactly one positional word is required. Unknown or repeated options, a
// missing value or a second positional word fail with QVImageExitUsage.
bool parseArguments(const std::vector<std::string>& args, const std::set<std::string>& flags,
                    const std::set<std::string>& valued, ParsedArguments* out, QVError* error);

// "<n>m" (MiB), "<n>g" (GiB) or a bare number of bytes; digits only, no sign,
// no fraction. nullopt when malformed or when it does not fit 64 bits.
std::optional<uint64_t> parseSizeWord(const std::string& word);
// A size for a virtual disk: parsed, rounded down to whole sectors, within the
// bounds of an image. Fails with QVImageExitUsage.
bool parseImageSize(const std::string& word, uint64_t* bytes, QVError* error);

// The password: every byte of standard input up to end of file. Empty input,
// or input larger than any password, fails with QVImageExitUsage.
bool readPasswordFromStdin(SecureBytes* password, QVError* error);

// "0 bytes", "1023 bytes", "1.5 KiB", "90.3 MiB", "9.7 GiB", "2.0 TiB".
std::string humanSize(uint64_t bytes);

} // namespace qv::image
