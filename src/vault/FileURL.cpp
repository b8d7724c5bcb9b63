#include "vault/FileURL.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace qv {

namespace {

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

} // namespace

std::string QVFileURLStringFromPath(const std::string& path) {
    static const char* allowed = "!$&'()*+,-./0123456789:=@ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz~";
    static const char* hex = "0123456789ABCDEF";
    std::string out = "file://";
    out.reserve(out.size() + path.size());
    for (unsigned char c : path) {
        if (c != 0 && std::strchr(allowed, c)) {
            out += char(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0x0F];
        }
    }
    return out;
}

std::optional<std::string> QVPathFromFileURLString(const std::string& url) {
    if (url.size() < 7) return std::nullopt;
    std::string scheme = url.substr(0, 7);
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](unsigned char c) { return std::tolower(c); });
    if (scheme != "file://") return std::nullopt;
    size_t slash = url.find('/', 7);
    if (slash == std::string::npos) return std::nullopt;
    std::string host = url.substr(7, slash - 7);
    if (!host.empty() && host != "localhost") return std::nullopt;
    std::string path;
    path.reserve(url.size() - slash);
    for (size_t i = slash; i < url.size(); ++i) {
        char c = url[i];
        if (c == '?' || c == '#') return std::nullopt;
        if (c != '%') {
            path += c;
            continue;
        }
        if (i + 2 >= url.size()) return std::nullopt;
        int hi = hexDigit(url[i + 1]), lo = hexDigit(url[i + 2]);
        if (hi < 0 || lo < 0 || (hi == 0 && lo == 0)) return std::nullopt;
        path += char(hi * 16 + lo);
        i += 2;
    }
    return path;
}

} // namespace qv
