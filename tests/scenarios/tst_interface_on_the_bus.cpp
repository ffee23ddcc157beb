// The service as its callers see it on the session bus: what it describes, answers, refuses and
// signals.

#include "Steps.h"
#include "VirtualProduct.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QTest>

class tst_interface_on_the_bus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void description();
    void answers();
    void refusedCalls();
    void relayedSignals();
};

namespace {

const char Interface[] = "com.orbitalis.ulmo.bluetoothinterface";
const char Object[] = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj";

} // namespace

void tst_interface_on_the_bus::description()
{
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    const QJsonArray reply = product.call("org.freedesktop.DBus.Introspectable.Introspect");
    const QString text = reply.at(0).toString();
    QVERIFY2(text.contains("@Enable: out Enable or not"), qPrintable(text)); // as it is installed
    // Nothing else of the supervisor shows.
    QStringList interfaces;
    QRegularExpressionMatchIterator match =
        QRegularExpression("<interface name=\"([^\"]*)\"").globalMatch(text);
    while (match.hasNext())
        interfaces.append(match.next().captured(1));
    QCOMPARE(interfaces.count(Interface), 1);
    QCOMPARE(interfaces.filter("org.freedesktop.DBus.").size(), interfaces.size() - 1);
}

/// Each method of a service that is switched off.
void tst_interface_on_the_bus::answers()
{
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    const QMap<QString, QJsonArray> answers {{"GetStatus", {0, false, false, "7351"}},
                                             {"SetEnabled b:false", {0}},
                                             {"SetPid s:7351", {0}},
                                             {"SetVolume i:40", {0}},
                                             {"SetMute i:1", {0}},
                                             {"DisconnectDevice", {1}},
                                             {"RemoveAllDevices", {1}},
                                             {"RemoveDevice s:00:1A:7D:DA:71:13", {1}}};
    for (const QString &line : answers.keys()) {
        product.tell("call " + line);
        const QString member = line.section(' ', 0, 0);
        const QJsonObject call = product.expect(VirtualProduct::message("call", member));
        QCOMPARE(call.value("interface").toString(), QString(Interface));
        const QJsonObject reply = product.expect(VirtualProduct::message("reply", member));
        QCOMPARE(reply.value("signature").toString(),
                 QString(member == "GetStatus" ? "ibbs" : "i"));
        QCOMPARE(reply.value("arguments").toArray(), answers.value(line));
    }
}

/// They get an error and change nothing.
void tst_interface_on_the_bus::refusedCalls()
{
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    const int from = product.mark();
    const QStringList noMethod {
        "GetVolume", // no such method
        "getStatus", // another case
        "SetPid i:1234",
        "SetEnabled s:true",
        "SetVolume u:40",
        "SetEnabled", // an argument missing
        // slots that are not for callers
        "bluezRestart",
        "DevicePropertyChanged s:Connected v:b:true",
        "deleteLater",
    };
    for (const QString &call : noMethod) {
        const QString text = product.tellRefused("call " + call);
        QVERIFY2(text.startsWith("org.freedesktop.DBus.Error.UnknownMethod: "), qPrintable(text));
    }
    for (const QString interface : {"com.orbitalis.ulmo.other", "local.BluetoothManager"}) {
        const QString text = product.tellRefused("call " + interface + ".GetStatus");
        QVERIFY2(text.startsWith("org.freedesktop.DBus.Error.UnknownInterface: "),
                 qPrintable(text));
    }
    QCOMPARE(product.call("GetStatus"), QJsonArray({0, false, false, "7351"}));
    QCOMPARE(Steps::steps(product, from), QStringList {"4 [DBUS|Internal] GetStatus() requested"});
}

void tst_interface_on_the_bus::relayedSignals()
{
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    product.call("SetPid", {"s:0042"});
    product.call("SetEnabled", {"b:true"});
    Steps::waitUntilOn(product);
    product.call("SetEnabled", {"b:false"});
    QCOMPARE(Steps::serviceSignals(product),
             QStringList({"BluetoothPidChanged(\"0042\")", "BluetoothOn(true)",
                          "DisconnectAudioDevice()", "BluetoothOn(false)"}));
    const QHash<QString, QString> signatures {
        {"BluetoothPidChanged", "s"}, {"BluetoothOn", "b"}, {"DisconnectAudioDevice", ""}};
    for (const QJsonObject &signal :
         product.entries({{"kind", "signal"}, {"senderName", "service"}})) {
        QCOMPARE(signal.value("bus").toString(), QString("session"));
        QCOMPARE(signal.value("path").toString(), QString(Object));
        QCOMPARE(signal.value("interface").toString(), QString(Interface));
        QCOMPARE(signal.value("signature").toString(),
                 signatures.value(signal.value("member").toString(), "none known"));
    }
}

SCENARIO_MAIN(tst_interface_on_the_bus)

#include "tst_interface_on_the_bus.moc"
