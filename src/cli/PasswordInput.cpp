#include "cli/PasswordInput.h"

#include <cstdio>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "vault/QVCrypto.h"

namespace qv::cli {

namespace {

// Reads up to a newline or the end, byte by byte, so that nothing beyond the
// line stays in a stdio buffer that would hold password bytes unwiped.
std::optional<std::string> readLine(int fd) {
    std::string line;
    char c;
    bool any = false;
    for (;;) {
        ssize_t n = ::read(fd, &c, 1);
        if (n < 0) {
            QVWipe(line);
            return std::nullopt;
        }
        if (n == 0) break;
        any = true;
        if (c == '\n') break;
        line.push_back(c);
    }
    if (!any) return std::nullopt;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

} // namespace

PasswordInput::PasswordInput() : interactive_(::isatty(STDIN_FILENO)) {}

std::optional<std::string> PasswordInput::read(const char* prompt) {
    if (!interactive_) return readLine(STDIN_FILENO);
    int tty = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
    int fd = tty >= 0 ? tty : STDIN_FILENO;
    struct termios old {};
    bool restore = ::tcgetattr(fd, &old) == 0;
    if (restore) {
        struct termios noecho = old;
        noecho.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        noecho.c_lflag |= ECHONL;
        ::tcsetattr(fd, TCSAFLUSH, &noecho);
    }
    if (::write(fd, prompt, std::char_traits<char>::length(prompt)) < 0) { /* the prompt is a courtesy */ }
    auto line = readLine(fd);
    if (restore) ::tcsetattr(fd, TCSAFLUSH, &old);
    if (tty >= 0) ::close(tty);
    return line;
}

std::optional<std::string> PasswordInput::readText(const char* prompt) {
    if (!interactive_) return readLine(STDIN_FILENO);
    int tty = ::open("/dev/tty", O_RDWR | O_CLOEXEC);
    int fd = tty >= 0 ? tty : STDIN_FILENO;
    if (::write(fd, prompt, std::char_traits<char>::length(prompt)) < 0) { /* the prompt is a courtesy */
    }
    auto line = readLine(fd);
    if (tty >= 0) ::close(tty);
    return line;
}

std::optional<std::string> PasswordInput::readNew(const char* prompt, const char* again, bool* mismatch) {
    if (mismatch) *mismatch = false;
    auto first = read(prompt);
    if (!first || !interactive_) return first;
    auto second = read(again);
    bool same = second && *second == *first;
    if (second) QVWipe(*second);
    if (same) return first;
    QVWipe(*first);
    if (mismatch) *mismatch = true;
    return std::nullopt;
}

} // namespace qv::cli
