#include "ui/shell/Termination.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QSocketNotifier>

#include "toolkit/Log.h"

namespace qv::ui {

namespace {

int wakeFds[2] = {-1, -1};

void onTerminationSignal(int) {
    const char byte = 1;
    ssize_t ignored = ::write(wakeFds[1], &byte, 1);
    (void)ignored;
}

} // namespace

void quitOnTerminationSignals() {
    if (::pipe2(wakeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        QV_LOG_ERROR("no pipe for the termination signals: they end the program without its backup");
        return;
    }
    auto* notifier = new QSocketNotifier(wakeFds[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, [] {
        char buffer[16];
        while (::read(wakeFds[0], buffer, sizeof buffer) > 0) {
        }
        QCoreApplication::quit();
    });
    struct sigaction action {};
    action.sa_handler = onTerminationSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGHUP, &action, nullptr);
}

} // namespace qv::ui
