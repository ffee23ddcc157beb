#include "DaemonBench.h"
#include "Script.h"

#include <QDBusObjectPath>
#include <QtTest>

/**
 * How the virtual daemon answers calls: the scripts of answers.txt, its introspection, and what the
 * hub can make of its answers.
 */
class CallsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void answers_data();
    void answers();
    void withoutAdapter();
    void introspection();
    void faults();
    void unanswered();
};

void CallsTest::answers_data()
{
    QTest::addColumn<QString>("script");
    for (const Script::Section &section : Script::sections(ANSWERS))
        QTest::newRow(qPrintable(section.title)) << section.script;
}

void CallsTest::answers()
{
    QFETCH(QString, script);
    DaemonBench bench(0.1, {{"adapter-delay", 0}});
    QVERIFY(bench.addPhone("P"));
    QVERIFY(bench.addPhone("K", "trusted"));
    QVERIFY(bench.startUp());
    QVERIFY(bench.startAgent());
    bench.recorder.clear();
    QCOMPARE(Script(script).run(bench), QString());
}

void CallsTest::withoutAdapter()
{
    DaemonBench bench(0.1, {{"no-adapter", true}});
    QVERIFY(bench.addPhone("P"));
    const QString script = R"(
        > start
        org.bluez appears
        > unit / Manager.DefaultAdapter
        error / Manager.DefaultAdapter Error.NoSuchAdapter "No such adapter"
        > unit / Manager.ListAdapters
        return / Manager.ListAdapters []
        > unit adapter Adapter.ListDevices
        error adapter Adapter.ListDevices DBus.Error.UnknownObject "Method "ListDevices" with
        | signature "" on interface "org.bluez.Adapter" doesn't exist"
        > stop
        org.bluez vanishes)";
    QCOMPARE(Script(script).run(bench), QString());
}

void CallsTest::introspection()
{
    DaemonBench bench(0.1, {{"adapter-delay", 0}});
    QVERIFY(bench.addPhone("K", "known"));
    QVERIFY(bench.startUp());
    const struct
    {
        QString path;
        QStringList interfaces;
        QStringList nodes;
    } objects[] = {
        {"/", {"org.bluez.Manager"}, {"org"}},
        {"/org/bluez", {}, {QString::number(bench.daemon().processId())}},
        {bench.path("adapter"),
         {"org.bluez.Adapter", "org.bluez.Service", "org.bluez.Media", "org.bluez.NetworkServer",
          "org.bluez.SerialProxyManager"},
         {bench.path("K").section('/', -1)}},
        {bench.path("K"), {"org.bluez.Device", "org.bluez.Audio", "org.bluez.AudioSource"}, {}},
    };
    for (const auto &object : objects) {
        const QDBusMessage call = QDBusMessage::createMethodCall(
            "org.bluez", object.path, "org.freedesktop.DBus.Introspectable", "Introspect");
        const QString text = bench.send(call).arguments().value(0).toString();
        QStringList interfaces, nodes;
        QRegularExpression entry("<(interface|node) name=\"([^\"]*)\"");
        for (auto match = entry.globalMatch(text); match.hasNext();) {
            const auto found = match.next();
            (found.captured(1) == "node" ? nodes : interfaces).append(found.captured(2));
        }
        interfaces.removeOne("org.freedesktop.DBus.Introspectable");
        QCOMPARE(interfaces, object.interfaces);
        QCOMPARE(nodes, QStringList(object.path) + object.nodes);
    }
    QDBusMessage properties = QDBusMessage::createMethodCall(
        "org.bluez", bench.path("K"), "org.freedesktop.DBus.Properties", "GetAll");
    properties << "org.bluez.Device";
    QCOMPARE(bench.send(properties).errorName(),
             QString("org.freedesktop.DBus.Error.UnknownMethod"));
}

void CallsTest::faults()
{
    const QJsonArray faults {
        QJsonObject {{"method", "Manager.DefaultAdapter"},
                     {"error", "NotReady"},
                     {"times", 2},
                     {"after", 1}},
        QJsonObject {{"method", "org.bluez.Adapter.ListDevices"}, {"error", true}},
        QJsonObject {{"method", "Adapter.GetProperties"}, {"delay", 300}}};
    DaemonBench bench(0.1, {{"adapter-delay", 0}, {"faults", faults}});
    QVERIFY(bench.startUp());
    for (const QString error : {"", "NotReady", "NotReady", "", ""}) {
        const QString name = error.isEmpty() ? error : "org.bluez.Error." + error;
        QCOMPARE(bench.call("/", "Manager.DefaultAdapter").errorName(), name);
    }
    QCOMPARE(bench.call("adapter", "Adapter.ListDevices").errorName(),
             QString("org.bluez.Error.Failed"));
    QElapsedTimer clock;
    clock.start();
    QVERIFY(bench.call("adapter", "Adapter.GetProperties").errorName().isEmpty());
    QVERIFY(clock.elapsed() >= 290);
    bench.hub.setOptions({{"faults", QJsonValue()}});
    QVERIFY(bench.call("adapter", "Adapter.ListDevices").errorName().isEmpty());
}

void CallsTest::unanswered()
{
    const QJsonArray faults {QJsonObject {{"method", "Adapter.ListDevices"}, {"never", true}}};
    DaemonBench bench(0.1, {{"adapter-delay", 0}, {"faults", faults}});
    QVERIFY(bench.startUp());
    bench.begin("adapter", "Adapter.ListDevices");
    // The other calls go on; the one that hangs ends with the daemon.
    QVERIFY(bench.call("/", "Manager.DefaultAdapter").errorName().isEmpty());
    QVERIFY(!bench.recorder.lines().join('\n').contains("ListDevices"));
    bench.daemon().kill();
    QVERIFY(bench.recorder.waitForLine(
        "error adapter Adapter.ListDevices DBus.Error.NoReply \"Message recipient disconnected "
        "from message bus without replying\""));
}

QTEST_GUILESS_MAIN(CallsTest)
#include "tst_bluez_calls.moc"
