#include "notify/NotificationConsole.h"

#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <unistd.h>

#include "toolkit/Log.h"
#include "notify/QVNotificationCenter.h"
#include "toolkit/WriteAll.h"

namespace qv {

namespace {

// Keeps newlines and tabs; every other control character, C1 controls in their
// UTF-8 form included, becomes '?', so that text can't send escape sequences.
std::string printable(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if ((c < 0x20 && c != '\n' && c != '\t') || c == 0x7f) {
            out += '?';
        } else if (c == 0xc2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) >= 0x80 &&
                   static_cast<unsigned char>(text[i + 1]) <= 0x9f) {
            out += '?';
            ++i;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// Reads one line without its newline; false at the end of input before any newline.
bool readLine(int fd, std::string& line) {
    constexpr size_t kMaxLine = 1024;
    line.clear();
    for (;;) {
        char c;
        ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        if (c == '\n') return true;
        if (line.size() < kMaxLine) line += c;
    }
}

std::string normalisedAnswer(const std::string& line) {
    size_t b = line.find_first_not_of(" \t\r");
    if (b == std::string::npos) return {};
    size_t e = line.find_last_not_of(" \t\r");
    std::string word = line.substr(b, e - b + 1);
    for (char& c : word)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return word;
}

int tenthOf(double progress) { return progress >= 1.0 ? 10 : static_cast<int>(std::floor(progress * 10.0)); }

} // namespace

ConsoleNotificationDelivery::ConsoleNotificationDelivery(int fd) : fd_(fd) {}

void ConsoleNotificationDelivery::writeLine(const std::string& line) {
    // A console that went away is no reason to stop working.
    (void)QVWriteAll(fd_, line);
}

void ConsoleNotificationDelivery::deliver(const QVNotificationRef& notification) {
    if (!notification) return;
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = tenths_.begin(); it != tenths_.end();)
        it = it->first.expired() ? tenths_.erase(it) : std::next(it);
    if (notification->type() == QVNotificationProgress)
        tenths_[notification] = notification->isDeterminate() ? tenthOf(notification->progress()) : -1;
    writeLine(printable(notification->title() + ": " + notification->msg()) + "\n");
}

void ConsoleNotificationDelivery::progressChanged(const QVNotificationRef& notification) {
    if (!notification || !notification->isDeterminate()) return;
    std::lock_guard<std::mutex> lock(mutex_);
    const double progress = notification->progress();
    const int tenth = tenthOf(progress);
    auto [it, inserted] = tenths_.try_emplace(notification, -1);
    (void)inserted;
    if (tenth <= it->second) return;
    it->second = tenth;
    int percent = progress >= 1.0 ? 100 : static_cast<int>(std::floor(progress * 100.0));
    writeLine(printable(QVFormat("%s: %s (%d%%)", notification->title().c_str(), notification->msg().c_str(),
                                 percent)) +
              "\n");
}

bool QVAskYesNo(int inFd, int outFd, const std::string& message, bool defaultButton) {
    const std::string prompt = printable(message) + (defaultButton ? " [Y/n] " : " [y/N] ");
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (QVWriteAll(outFd, prompt) != 0) return defaultButton;
        std::string line;
        bool complete = readLine(inFd, line);
        std::string answer = normalisedAnswer(line);
        if (!complete && answer.empty()) {
            QVWriteAll(outFd, "\n");
            return defaultButton;
        }
        if (answer.empty()) return defaultButton;
        if (answer == "y" || answer == "yes") return true;
        if (answer == "n" || answer == "no") return false;
    }
    return defaultButton;
}

bool QVAskYesNoOnTerminal(const std::string& message, bool defaultButton) {
    int fd = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        QVLogInfo(std::string("no terminal to ask, taking the default answer (") + (defaultButton ? "yes" : "no") +
                  "): " + message);
        return defaultButton;
    }
    bool answer = QVAskYesNo(fd, fd, message, defaultButton);
    ::close(fd);
    return answer;
}

} // namespace qv
