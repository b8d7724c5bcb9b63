// Calls UnlockFolder or LockFolder of the running application on the session
// bus with the password read from standard input, so that the desktop test's
// password never stands on a command line. Prints the answer as gdbus would:
// (true, 'message'). Exit 1 when the call itself failed.
//
// usage: qv-e2e-bus-call UnlockFolder|LockFolder <folder>   (password on stdin)
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>

#include <cstdio>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc != 3) {
        std::fputs("usage: qv-e2e-bus-call UnlockFolder|LockFolder <folder>\n", stderr);
        return 2;
    }
    std::string password;
    std::getline(std::cin, password);
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("com.marrowfen.Quillvane3"), QStringLiteral("/com/marrowfen/Quillvane3"),
        QStringLiteral("com.marrowfen.Quillvane3"), QString::fromUtf8(argv[1]));
    call << QString::fromUtf8(argv[2]) << QString::fromStdString(password);
    password.assign(password.size(), '\0');
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 300000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2) {
        std::fprintf(stderr, "%s\n", qPrintable(reply.errorMessage()));
        return 1;
    }
    std::printf("(%s, '%s')\n", reply.arguments().at(0).toBool() ? "true" : "false",
                qPrintable(reply.arguments().at(1).toString()));
    return 0;
}
