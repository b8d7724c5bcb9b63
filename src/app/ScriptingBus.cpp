#include "app/ScriptingBus.h"

#include <QDBusConnection>
#include <QDBusMessage>

namespace qv {

bool QVCallRunningInstanceShow() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return false;
    QDBusMessage call =
        QDBusMessage::createMethodCall(QString::fromLatin1(QVBusService), QString::fromLatin1(QVBusObjectPath),
                                       QString::fromLatin1(QVBusInterface), QStringLiteral("Show"));
    call.setAutoStartService(false);
    return bus.call(call, QDBus::Block, 5000).type() == QDBusMessage::ReplyMessage;
}

} // namespace qv
