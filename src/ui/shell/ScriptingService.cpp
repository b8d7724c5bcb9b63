#include "ui/shell/ScriptingService.h"

#include <QDBusMessage>

#include "app/ScriptedFolders.h"
#include "app/ScriptingBus.h"
#include "toolkit/MainThread.h"
#include "ui/shell/SecretText.h"

namespace qv::ui {

ScriptingService::ScriptingService(std::function<DBMasterRef()> master, std::function<void()> show, QObject* parent)
    : QObject(parent), master_(std::move(master)), show_(std::move(show)) {}

bool ScriptingService::registerOn(QDBusConnection bus) {
    if (!bus.isConnected()) return false;
    if (!bus.registerService(QString::fromLatin1(QVBusService))) return false;
    return bus.registerObject(QString::fromLatin1(QVBusObjectPath), QString::fromLatin1(QVBusInterface), this,
                              QDBusConnection::ExportAllSlots);
}

void ScriptingService::Show() {
    if (show_) show_();
}

bool ScriptingService::UnlockFolder(const QString& mountpath, const QString& password, QString&) {
    answerLater(mountpath, password, true);
    return false;
}

bool ScriptingService::LockFolder(const QString& mountpath, const QString& password, QString&) {
    answerLater(mountpath, password, false);
    return false;
}

void ScriptingService::answerLater(const QString& mountpath, const QString& password, bool unlock) {
    setDelayedReply(true);
    // The reply is made now, so the call's message (which carries the password)
    // is not kept alive for as long as the task runs.
    QDBusMessage reply = message().createReply();
    QDBusConnection bus = connection();
    auto secret = std::make_shared<SecretText>(password);
    const DBMasterRef master = master_ ? master_() : nullptr;
    const std::string path = mountpath.toStdString();
    // The task waits on its own thread; the reply goes out from there.
    detachBlock([reply, bus, secret, master, path, unlock]() mutable {
        const QVScriptAnswer answer = unlock ? QVUnlockFolderForScript(master, path, secret->text())
                                             : QVLockFolderForScript(master, path, secret->text());
        secret->wipe();
        reply.setArguments({answer.ok, QString::fromStdString(answer.message)});
        bus.send(reply);
    });
}

} // namespace qv::ui
