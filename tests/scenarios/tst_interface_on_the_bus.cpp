// The service as its callers see it on the session bus: what it describes, answers, refuses and
// signals, and whom on the system bus it does not listen to.

#include "Steps.h"
#include "VirtualProduct.h"

#include <QCoreApplication>
#include <QTest>
#include <QXmlStreamReader>

class tst_interface_on_the_bus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void description();
    void answers_data();
    void answers();
    void refusedCalls_data();
    void refusedCalls();
    void refusedPins_data();
    void refusedPins();
    void relayedSignals();
    void strangers_data();
    void strangers();
};

namespace {

const char Interface[] = "com.orbitalis.ulmo.bluetoothinterface";
const char Object[] = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj";

/// Members in order, as "method SetPid(in s Pid, out i Status)", and comments as "! words".
class Description
{
public:
    explicit Description(const QString &text) : m_reader(text)
    {
        while (!m_reader.atEnd()) {
            m_reader.readNext();
            if (m_reader.isStartElement())
                start();
            else if (m_reader.isEndElement())
                end();
            else if (m_reader.isComment())
                m_members[m_interface].append("! " + m_reader.text().toString().simplified());
        }
    }

    QStringList interfaces() const { return m_members.keys(); }
    QStringList members(const QString &interface) const { return m_members.value(interface); }
    QString error() const { return m_reader.errorString(); }

private:
    QString attribute(const char *name) const
    {
        return m_reader.attributes().value(QLatin1String(name)).toString();
    }

    void start()
    {
        const QStringRef element = m_reader.name();
        if (element == "interface") {
            m_interface = attribute("name");
            m_members.insert(m_interface, {});
        } else if (element == "arg") {
            m_arguments.append(
                QString("%1 %2 %3")
                    .arg(attribute("direction"), attribute("type"), attribute("name"))
                    .trimmed());
        } else if (element == "method" || element == "signal") {
            m_member = element.toString() + ' ' + attribute("name");
        } else if (element != "node") {
            m_members[m_interface].append(element.toString());
        }
    }

    void end()
    {
        if (m_reader.name() == "method" || m_reader.name() == "signal") {
            m_members[m_interface].append(m_member + '(' + m_arguments.join(", ") + ')');
            m_arguments.clear();
        }
    }

    QXmlStreamReader m_reader;
    QString m_interface;
    QString m_member;
    QStringList m_arguments;
    QMap<QString, QStringList> m_members;
};

} // namespace

void tst_interface_on_the_bus::description()
{
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    const QJsonArray reply = product.call("org.freedesktop.DBus.Introspectable.Introspect");
    const Description description(reply.at(0).toString());
    QCOMPARE(description.error(), QString());
    QCOMPARE(description.members(Interface),
             QStringList({"! METHODS",
                          "! SetStandalone Inform the SoundManager that must run in standalone "
                          "mode or not.",
                          "method SetPid(in s Pid, out i Status)",
                          "method SetEnabled(in b Enable, out i Status)",
                          "method SetVolume(in i Enable, out i Status)",
                          "method SetMute(in i Enable, out i Status)",
                          "method DisconnectDevice(out i Status)",
                          "method RemoveAllDevices(out i Status)",
                          "method RemoveDevice(in s Device, out i Status)",
                          "! GetStatus: returns the status of the bluetooth manager. @Status: out "
                          "Enable or not @Enable: out Enable or not @On: out On or Off @pid: out "
                          "bluetooth pid. If empty means alsways works",
                          "method GetStatus(out i Status, out b Enable, out b On, out s pid)",
                          "! SIGNALS", "signal BluetoothOn(b On)",
                          "signal BluetoothPidChanged(s Pid)", "signal ConnectAudioDevice()",
                          "signal DisconnectAudioDevice()", "signal NoPlayConnectedDevive()"}));
    // Nothing else of the supervisor shows.
    for (const QString &name : description.interfaces())
        QVERIFY2(name == Interface || name.startsWith("org.freedesktop.DBus."), qPrintable(name));
}

void tst_interface_on_the_bus::answers_data()
{
    QTest::addColumn<QString>("line");
    QTest::addColumn<QString>("signature");
    QTest::addColumn<QJsonArray>("values");
    QTest::newRow("GetStatus") << "call GetStatus"
                               << "ibbs" << QJsonArray {0, false, false, "7351"};
    QTest::newRow("SetEnabled") << "call SetEnabled b:false"
                                << "i" << QJsonArray {0};
    QTest::newRow("SetPid, the same") << "call SetPid s:7351"
                                      << "i" << QJsonArray {0};
    QTest::newRow("SetVolume") << "call SetVolume i:40"
                               << "i" << QJsonArray {0};
    QTest::newRow("SetMute") << "call SetMute i:1"
                             << "i" << QJsonArray {0};
    QTest::newRow("DisconnectDevice, none") << "call DisconnectDevice"
                                            << "i" << QJsonArray {1};
    QTest::newRow("RemoveAllDevices, no BlueZ") << "call RemoveAllDevices"
                                                << "i" << QJsonArray {1};
    QTest::newRow("RemoveDevice, no BlueZ") << "call RemoveDevice s:00:1A:7D:DA:71:13"
                                            << "i" << QJsonArray {1};
}

/// Each method of a service that is switched off.
void tst_interface_on_the_bus::answers()
{
    QFETCH(QString, line);
    QFETCH(QString, signature);
    QFETCH(QJsonArray, values);
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    product.tell(line);
    const QString member = line.section(' ', 1, 1);
    const QJsonObject call = product.expect(VirtualProduct::message("call", member));
    QCOMPARE(call.value("interface").toString(), QString(Interface));
    const QJsonObject reply = product.expect(VirtualProduct::message("reply", member));
    QCOMPARE(reply.value("signature").toString(), signature);
    QCOMPARE(reply.value("arguments").toArray(), values);
}

void tst_interface_on_the_bus::refusedCalls_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QString>("arguments");
    QTest::addColumn<QString>("error");
    const QString noMethod = "org.freedesktop.DBus.Error.UnknownMethod";
    const QString noInterface = "org.freedesktop.DBus.Error.UnknownInterface";
    const QString ofClass = "local.BluetoothManager.";
    QTest::newRow("no such method") << "GetVolume"
                                    << "" << noMethod;
    QTest::newRow("another case") << "getStatus"
                                  << "" << noMethod;
    QTest::newRow("no such interface") << "com.orbitalis.ulmo.other.GetStatus"
                                       << "" << noInterface;
    QTest::newRow("PIN as a number") << "SetPid"
                                     << "i:1234" << noMethod;
    QTest::newRow("switch as a number") << "SetEnabled"
                                        << "i:1" << noMethod;
    QTest::newRow("switch as a text") << "SetEnabled"
                                      << "s:true" << noMethod;
    QTest::newRow("volume as a text") << "SetVolume"
                                      << "s:40" << noMethod;
    QTest::newRow("unsigned volume") << "SetVolume"
                                     << "u:40" << noMethod;
    QTest::newRow("mute as a switch") << "SetMute"
                                      << "b:true" << noMethod;
    QTest::newRow("address as a path") << "RemoveDevice"
                                       << "o:/dev_00" << noMethod;
    QTest::newRow("an argument missing") << "SetEnabled"
                                         << "" << noMethod;
    QTest::newRow("restart of BlueZ") << "bluezRestart"
                                      << "" << noMethod;
    QTest::newRow("restart of the agent") << "restartAgent"
                                          << "" << noMethod;
    QTest::newRow("start") << "Enable"
                           << "" << noMethod;
    QTest::newRow("property change") << "DevicePropertyChanged"
                                     << "s:Connected v:b:true" << noMethod;
    QTest::newRow("deletion") << "deleteLater"
                              << "" << noMethod;
    QTest::newRow("slot of the class") << ofClass + "bluezRestart"
                                       << "" << noInterface;
    QTest::newRow("method of the class") << ofClass + "GetStatus"
                                         << "" << noInterface;
}

/// They get an error and change nothing.
void tst_interface_on_the_bus::refusedCalls()
{
    QFETCH(QString, method);
    QFETCH(QString, arguments);
    QFETCH(QString, error);
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    const int from = product.mark();
    const QString text = product.tellRefused("call " + method + ' ' + arguments);
    QCOMPARE(text.section(": ", 0, 0), error);
    QCOMPARE(product.call("GetStatus"), QJsonArray({0, false, false, "7351"}));
    QCOMPARE(Steps::steps(product, from), QStringList {"4 [DBUS|Internal] GetStatus() requested"});
}

void tst_interface_on_the_bus::refusedPins_data()
{
    QTest::addColumn<QString>("pin");
    QTest::newRow("empty") << "";
    QTest::newRow("three digits") << "123";
    QTest::newRow("five digits") << "12345";
    QTest::newRow("a letter") << "12a4";
    QTest::newRow("a blank") << " 123";
    QTest::newRow("a sign") << "-123";
}

void tst_interface_on_the_bus::refusedPins()
{
    QFETCH(QString, pin);
    VirtualProduct product(Steps::switchedOff());
    Steps::waitUntilRunning(product);
    const int from = product.mark();
    QCOMPARE(product.call("SetPid", {"s:" + pin}), QJsonArray {1});
    QCOMPARE(Steps::steps(product, from),
             QStringList {"4 [DBUS|Internal] SetPid(" + (pin.isEmpty() ? "<none>" : pin)
                          + ") requested"});
    QCOMPARE(product.call("GetStatus"), QJsonArray({0, false, false, "7351"}));
    QCOMPARE(Steps::serviceSignals(product), QStringList());
    QVERIFY(!product.settings().contains("BLUETOOTH/bt-pid"));
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

void tst_interface_on_the_bus::strangers_data()
{
    QTest::addColumn<QString>("change");
    QTest::newRow("a device connects") << "Device.PropertyChanged s:Connected v:b:true";
    QTest::newRow("a source connects") << "AudioSource.PropertyChanged s:State v:s:connecting";
}

/// Whoever does not own BlueZ's name can say of its devices what they like.
void tst_interface_on_the_bus::strangers()
{
    QFETCH(QString, change);
    VirtualProduct product(Steps::adapterAtOnce());
    Steps::waitUntilOn(product);
    const int from = product.mark();
    product.tell("spoof /org/bluez/1/hci0/dev_66 org.bluez." + change);
    product.expect(VirtualProduct::message("signal", "PropertyChanged"));
    // A real one, which the bus brings later.
    product.tell(
        "signal /org/bluez/1/hci0/dev_13 org.bluez.Device.PropertyChanged s:Name v:s:anna");
    product.expectLog(4, "DevicePropertyChanged (org.bluez.Device)/org/bluez/1/hci0/dev_13 *");
    QCOMPARE(Steps::steps(product, from).size(), 1);
    QCOMPARE(product.call("DisconnectDevice"), QJsonArray {1});
}

SCENARIO_MAIN(tst_interface_on_the_bus)

#include "tst_interface_on_the_bus.moc"
