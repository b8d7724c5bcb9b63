#pragma once
// Slow work of a screen (a key derivation takes a second or more) runs on a
// worker thread of high priority, so the screen never freezes; its result comes
// back on the main thread to the screen, if the screen still lives, or else to
// `dropped`, which lets go of what the work obtained.
#include <QCoreApplication>
#include <QPointer>
#include <QThread>
#include <QThreadPool>
#include <functional>

namespace qv::ui {

template <class Result>
void runOffMainThread(QObject* receiver, std::function<Result()> work, std::function<void(Result)> done,
                      std::function<void(Result)> dropped = {}) {
    QPointer<QObject> guard(receiver);
    QThreadPool::globalInstance()->start(
        [guard, work = std::move(work), done = std::move(done), dropped = std::move(dropped)] {
            Result result = work();
            QMetaObject::invokeMethod(
                QCoreApplication::instance(),
                [guard, result, done, dropped] {
                    if (guard)
                        done(result);
                    else if (dropped)
                        dropped(result);
                },
                Qt::QueuedConnection);
        },
        QThread::HighPriority);
}

} // namespace qv::ui
