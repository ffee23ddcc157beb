#include "Bench.h"

#include <QDBusMessage>
#include <QRegularExpression>
#include <QtTest>

/// What is asked of the daemon beside its messages about phones.
class DaemonTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void secondDaemon();
    void agentEnds();
    void introspection();
};

void DaemonTest::secondDaemon()
{
    Bench bench("mgmt");
    QVERIFY(bench.startDaemon());
    QVERIFY(bench.waitForLine("org.bluez appears"));
    QProcess second;
    bench.start(second, "bluetoothd", {"-n"});
    QTRY_COMPARE(second.state(), QProcess::NotRunning);
    QCOMPARE(second.exitCode(), 1); // the name is taken
}

void DaemonTest::agentEnds()
{
    Bench bench("mgmt");
    bench.setOption("no-adapter", true);
    QVERIFY(bench.startDaemon());
    QVERIFY(bench.waitForLine("org.bluez appears"));
    bench.launchAgent(); // in vain
    QTRY_COMPARE(bench.agent().state(), QProcess::NotRunning);
    QCOMPARE(bench.agent().exitCode(), 1);
    QVERIFY(bench.stop(bench.daemon()));

    bench.setOption("no-adapter", false);
    QVERIFY(bench.startDaemon());
    QVERIFY(bench.waitForLine("adapter Adapter.Discoverable = false"));
    QVERIFY(bench.startAgent());
    bench.daemon().kill();
    QTRY_COMPARE(bench.agent().state(), QProcess::NotRunning);
    QCOMPARE(bench.agent().exitCode(), 0);
}

void DaemonTest::introspection()
{
    Bench bench("mgmt");
    QVERIFY(bench.addPhone("K", "known"));
    QVERIFY(bench.startDaemon());
    QVERIFY(bench.waitForLine("adapter Adapter.Discoverable = false"));
    const auto askAbout = [&](const QString &path, const QString &interface, const QString &method,
                              const QVariantList &arguments = {}) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            "org.bluez", path, "org.freedesktop.DBus." + interface, method);
        call.setArguments(arguments);
        return bench.caller().call(call, QDBus::BlockWithGui);
    };
    const struct
    {
        QString path;
        QString names; // of interfaces and of nodes below
    } objects[] = {
        {"/", "Manager org"},
        {"/org/bluez", QString::number(bench.daemon().processId())},
        {bench.path("adapter"),
         "Adapter Service Media NetworkServer SerialProxyManager "
             + bench.path("K").section('/', -1)},
        {bench.path("K"), "Device Audio AudioSource"},
    };
    for (const auto &object : objects) {
        const QDBusMessage reply = askAbout(object.path, "Introspectable", "Introspect");
        QStringList names;
        QRegularExpression entry("<(?:interface|node) name=\"(?:[\\w.]*\\.)?(\\w+)\"");
        const QString text = reply.arguments().value(0).toString();
        for (auto match = entry.globalMatch(text); match.hasNext();)
            names.append(match.next().captured(1));
        names.removeOne("Introspectable");
        QCOMPARE(names.join(' '), object.names);
    }
    QCOMPARE(askAbout(bench.path("K"), "Properties", "GetAll", {"org.bluez.Device"}).errorName(),
             QString("org.freedesktop.DBus.Error.UnknownMethod"));
}

QTEST_GUILESS_MAIN(DaemonTest)
#include "tst_bluez_daemon.moc"
