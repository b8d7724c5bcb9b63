// The application on a private session bus (a dbus-daemon of the test's own,
// killed by its pid): one owner of the name, Show(), UnlockFolder's refusals
// answered later without blocking the screen, and `qv show` with and without
// a running application.
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QProcess>

#include "app/ScriptingBus.h"
#include "ui/UiTestMain.h"
#include "ui/shell/ScriptingService.h"
#include "ui/shell/ShellTestSupport.h"

using namespace qv;
using namespace qv::ui;

class ScriptingServiceTest : public QObject {
    Q_OBJECT
    QProcess daemon;
    QString address;
    DBMasterRef master;
    int shown = 0;

    QDBusMessage call(const QString& method, const QVariantList& args = {}) {
        QDBusConnection client = QDBusConnection::connectToBus(address, QStringLiteral("client"));
        QDBusMessage message = QDBusMessage::createMethodCall(QVBusService, QVBusObjectPath, QVBusInterface, method);
        message.setArguments(args);
        // Asynchronous: the service answers on this very thread's event loop.
        QDBusPendingCallWatcher watcher(client.asyncCall(message, 30000));
        if (!QTest::qWaitFor([&] { return watcher.isFinished(); }, 30000)) return {};
        return watcher.reply();
    }

    int runQvShow() {
        QProcess qv;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
        qv.setProcessEnvironment(env);
        qv.start(QStringLiteral(QV_CLI_PATH), {QStringLiteral("show")});
        // The application answers Show() on this thread: turn the loop while qv waits.
        if (!QTest::qWaitFor([&] { return qv.state() == QProcess::NotRunning; }, 20000)) {
            qv.kill();
            qv.waitForFinished();
            return -1;
        }
        return qv.exitCode();
    }

private slots:
    void initTestCase() {
        daemon.start(QStringLiteral("dbus-daemon"),
                     {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
        QVERIFY(daemon.waitForStarted());
        QVERIFY(QTest::qWaitFor([&] { return daemon.canReadLine() || daemon.waitForReadyRead(100); }, 10000));
        address = QString::fromUtf8(daemon.readLine()).trimmed();
        QVERIFY(!address.isEmpty());
        master = test::makeMasterFile({"script pass", "another"});
        QVERIFY(master);
    }
    void cleanupTestCase() {
        QDBusConnection::disconnectFromBus(QStringLiteral("server"));
        QDBusConnection::disconnectFromBus(QStringLiteral("second"));
        QDBusConnection::disconnectFromBus(QStringLiteral("client"));
        daemon.kill(); // by its pid
        daemon.waitForFinished();
    }

    void oneOwnerShowAndRefusals() {
        ScriptingService service([this] { return master; }, [this] { ++shown; });
        QVERIFY(service.registerOn(QDBusConnection::connectToBus(address, QStringLiteral("server"))));
        ScriptingService second([this] { return master; }, [] {});
        QVERIFY(!second.registerOn(QDBusConnection::connectToBus(address, QStringLiteral("second"))));

        QCOMPARE(call(QStringLiteral("Show")).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(shown, 1);

        QDBusMessage wrong =
            call(QStringLiteral("UnlockFolder"), {QStringLiteral("/home/nobody/Private"), QStringLiteral("wrong")});
        QCOMPARE(wrong.type(), QDBusMessage::ReplyMessage);
        QCOMPARE(wrong.arguments().size(), 2);
        QCOMPARE(wrong.arguments().at(0).toBool(), false);
        QVERIFY(!wrong.arguments().at(1).toString().isEmpty());

        QDBusMessage notInSet =
            call(QStringLiteral("LockFolder"), {QStringLiteral("/home/nobody/Private"), QStringLiteral("script pass")});
        QCOMPARE(notInSet.arguments().value(0).toBool(), false);
        QVERIFY(notInSet.arguments().value(1).toString().contains(QStringLiteral("/home/nobody/Private")));

        QCOMPARE(runQvShow(), 0);
        QCOMPARE(shown, 2);
    }

    void qvShowWithoutTheApplication() {
        // The service of the test before has gone with its name.
        QDBusConnection::disconnectFromBus(QStringLiteral("server"));
        QCOMPARE(runQvShow(), 5);
    }
};

QV_UI_TEST_MAIN(ScriptingServiceTest)
#include "ScriptingService_test.moc"
