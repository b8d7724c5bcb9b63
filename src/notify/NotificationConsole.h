#pragma once
// The command line's way to tell the user: each message as "<title>: <message>"
// on standard error, and yes/no questions asked on the controlling terminal.
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "notify/NotificationDelivery.h"

namespace qv {

// Writes one line per message to a file descriptor (standard error unless told
// otherwise), each line in one write so that lines of several threads never mix.
// Control characters in a message other than newlines and tabs are shown as '?',
// so that a folder name can't steer the terminal. A determinate progress message
// prints its percentage again at every tenth it passes and once at 100%.
// Thread-safe, for processes that deliver in place.
class ConsoleNotificationDelivery : public NotificationDelivery {
public:
    explicit ConsoleNotificationDelivery(int fd = 2);
    void deliver(const QVNotificationRef& notification) override;
    void progressChanged(const QVNotificationRef& notification) override;

private:
    void writeLine(const std::string& line);
    const int fd_;
    std::mutex mutex_;
    // The last tenth printed for each progress message on show.
    std::map<std::weak_ptr<QVNotification>, int, std::owner_less<std::weak_ptr<QVNotification>>> tenths_;
};

// Asks on the controlling terminal (/dev/tty) with "message [Y/n] " or
// "message [y/N] ". Gives the default answer when there is no terminal.
bool QVAskYesNoOnTerminal(const std::string& message, bool defaultButton);

// The question itself, on given descriptors: "y"/"yes" and "n"/"no" in any case
// answer, an empty line or the end of input takes the default, anything else asks
// again, up to three times in all, and then the default is taken.
bool QVAskYesNo(int inFd, int outFd, const std::string& message, bool defaultButton);

} // namespace qv
