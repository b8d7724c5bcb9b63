#include "image/Options.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "toolkit/Log.h"

namespace qv::image {

bool parseArguments(const std::vector<std::string>& args, const std::set<std::string>& flags,
                    const std::set<std::string>& valued, ParsedArguments* out, QVError* error) {
    ParsedArguments parsed;
    bool havePositional = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& word = args[i];
        if (valued.count(word)) {
            if (i + 1 >= args.size()) return fail(error, QVImageExitUsage, "option " + word + " needs a value");
            if (!parsed.values.emplace(word, args[i + 1]).second)
                return fail(error, QVImageExitUsage, "option " + word + " given twice");
            ++i;
        } else if (flags.count(word)) {
            if (!parsed.flags.insert(word).second)
                return fail(error, QVImageExitUsage, "option " + word + " given twice");
        } else if (!word.empty() && word[0] == '-') {
            return fail(error, QVImageExitUsage, "unknown option " + word);
        } else {
            if (havePositional) return fail(error, QVImageExitUsage, "unexpected argument '" + word + "'");
            if (word.empty()) return fail(error, QVImageExitUsage, "empty path");
            parsed.positional = word;
            havePositional = true;
        }
    }
    if (!havePositional) return fail(error, QVImageExitUsage, "missing path");
    *out = std::move(parsed);
    return true;
}

std::optional<uint64_t> parseSizeWord(const std::string& word) {
    if (word.empty()) return std::nullopt;
    size_t digits = 0;
    uint64_t n = 0;
    for (; digits < word.size() && word[digits] >= '0' && word[digits] <= '9'; ++digits) {
        const uint64_t d = uint64_t(word[digits] - '0');
        if (n > (UINT64_MAX - d) / 10) return std::nullopt;
        n = n * 10 + d;
    }
    if (digits == 0) return std::nullopt;
    const std::string suffix = word.substr(digits);
    unsigned shift = 0;
    if (suffix.empty())
        shift = 0;
    else if (suffix == "m" || suffix == "M")
        shift = 20;
    else if (suffix == "g" || suffix == "G")
        shift = 30;
    else
        return std::nullopt;
    if (shift && n > (UINT64_MAX >> shift)) return std::nullopt;
    return n << shift;
}

bool parseImageSize(const std::string& word, uint64_t* bytes, QVError* error) {
    auto size = parseSizeWord(word);
    if (!size) return fail(error, QVImageExitUsage, "bad size '" + word + "': give <n>m, <n>g or a number of bytes");
    const uint64_t rounded = *size / kSectorSize * kSectorSize;
    if (rounded < kMinImageSize || rounded > kMaxImageSize)
        return fail(error, QVImageExitUsage,
                    "size '" + word + "' out of range: an image holds between " + humanSize(kMinImageSize) + " and " +
                        humanSize(kMaxImageSize) +
                        QVFormat(" (%llu bytes)", static_cast<unsigned long long>(kMaxImageSize)));
    *bytes = rounded;
    return true;
}

bool readPasswordFromStdin(SecureBytes* password, QVError* error) {
    // No password is longer than this; anything bigger is not a password.
    constexpr size_t kMaxPassword = 64 * 1024;
    SecureBytes buffer(kMaxPassword + 1);
    size_t have = 0;
    for (;;) {
        if (have == buffer.size()) return fail(error, QVImageExitUsage, "the password on standard input is too long");
        ssize_t n = ::read(STDIN_FILENO, buffer.data() + have, buffer.size() - have);
        if (n < 0) {
            if (errno == EINTR) continue;
            return failErrno(error, errno, "cannot read the password from standard input", QVImageExitUsage);
        }
        if (n == 0) break;
        have += size_t(n);
    }
    if (have == 0) return fail(error, QVImageExitUsage, "no password on standard input");
    password->assign(buffer.data(), have);
    return true;
}

std::string humanSize(uint64_t bytes) {
    if (bytes < 1024) return QVFormat("%llu bytes", static_cast<unsigned long long>(bytes));
    static const char* units[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    double value = double(bytes) / 1024.0;
    size_t unit = 0;
    while (value >= 1024.0 && unit + 1 < sizeof units / sizeof units[0]) {
        value /= 1024.0;
        ++unit;
    }
    return QVFormat("%.1f %s", value, units[unit]);
}

} // namespace qv::image
