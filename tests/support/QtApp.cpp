#include "support/QtApp.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QThread>
#include <QTimer>
#include <stdexcept>

namespace qv::test {

QCoreApplication& qtApp() {
    // QCoreApplication keeps references to argc and argv for its whole life.
    static int argc = 1;
    static char name[] = "qv_tests";
    static char* argv[] = {name, nullptr};
    // Made once and never destroyed: tests that ran before must not find their
    // main thread gone, and static destruction is no place for Qt's teardown.
    static QCoreApplication* app = [] {
        if (QCoreApplication* existing = QCoreApplication::instance()) return existing;
        return new QCoreApplication(argc, argv);
    }();
    if (QThread::currentThread() != app->thread())
        throw std::logic_error("qtApp() is for the thread of main()");
    return *app;
}

bool processEventsUntil(const std::function<bool()>& done, int timeoutMs) {
    if (done()) return true;
    QDeadlineTimer deadline(timeoutMs);
    QEventLoop loop;
    QTimer poll;
    poll.setInterval(5);
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done() || deadline.hasExpired()) loop.quit();
    });
    poll.start();
    loop.exec();
    return done();
}

void processEventsFor(int ms) {
    QDeadlineTimer deadline(ms);
    processEventsUntil([&] { return deadline.hasExpired(); }, ms + 1000);
}

} // namespace qv::test
