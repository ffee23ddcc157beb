#include "Steps.h"

#include <QJsonDocument>

namespace {

const QStringList Daemons {"service", "bluetoothd", "agent", "pulseaudio"};

/// The one log line and the command that set the pairing mode.
QStringList pairingModeSteps(int mode)
{
    const QString command = QString("hciconfig hci0 sspmode %1").arg(mode);
    return {"$ " + command, QString("4 set legacy mode (%1) 0").arg(command)};
}

} // namespace

VirtualProduct::Options Steps::adapterAtOnce()
{
    VirtualProduct::Options options;
    options.tell.append("fault bluetoothd adapter-delay=0");
    return options;
}

VirtualProduct::Options Steps::switchedOff()
{
    VirtualProduct::Options options = adapterAtOnce();
    options.settings.insert("BLUETOOTH/bt-enable", 0);
    return options;
}

QJsonObject Steps::waitUntilRunning(VirtualProduct &product, Place place)
{
    return product.expectLog(4, "Bluetooth Manager running", place);
}

void Steps::waitUntilStarting(VirtualProduct &product, Place place)
{
    product.expectLog(4, "bluez started and wait registration", place);
    const VirtualProduct::Pattern start {{"kind", "start"}, {"program", "bluetoothd"}};
    if (product.entries(start).isEmpty())
        product.expect(start, place);
}

void Steps::waitUntilOn(VirtualProduct &product, Place place)
{
    product.expect(
        {{"kind", "signal"}, {"member", "BluetoothOn"}, {"arguments", QJsonArray {true}}}, place);
    // The agent may have been quicker than the rest of the bring-up.
    const VirtualProduct::Pattern registration {
        {"kind", "reply"}, {"member", "RegisterAgent"}, {"destinationName", "agent"}};
    bool isRegistered = false;
    for (const QJsonObject &entry : product.entries({})) {
        if (VirtualProduct::fits(entry, {{"kind", "start"}, {"program", "bluetoothd"}}))
            isRegistered = false;
        else if (VirtualProduct::fits(entry, registration))
            isRegistered = true;
    }
    if (!isRegistered)
        product.expect(registration, place);
}

QStringList Steps::steps(VirtualProduct &product, int from)
{
    QStringList list;
    for (const QJsonObject &entry : product.entries({}, from)) {
        const QString kind = entry.value("kind").toString();
        if (kind == "log")
            list.append(QString("%1 %2")
                            .arg(entry.value("level").toInt())
                            .arg(entry.value("message").toString()));
        else if (kind == "start" && !Daemons.contains(entry.value("program").toString()))
            list.append("$ " + VirtualProduct::commandLine(entry));
    }
    return list;
}

QStringList Steps::serviceSignals(VirtualProduct &product, int from)
{
    QStringList list;
    for (const QJsonObject &entry : product.entries(
             {{"kind", "signal"}, {"bus", "session"}, {"senderName", "service"}}, from)) {
        const QByteArray arguments =
            QJsonDocument(entry.value("arguments").toArray()).toJson(QJsonDocument::Compact);
        list.append(entry.value("member").toString() + '('
                    + QString::fromUtf8(arguments.mid(1, arguments.size() - 2)) + ')');
    }
    return list;
}

void Steps::expectNothingLeft(VirtualProduct &product, Place place)
{
    for (const QJsonObject &start : product.entries({{"kind", "start"}})) {
        product.rewind(0);
        product.expect(
            {{"kind", "end"}, {"program", start.value("program")}, {"pid", start.value("pid")}},
            place);
    }
}

double Steps::secondsBetween(const QJsonObject &first, const QJsonObject &second)
{
    return second.value("time").toDouble() - first.value("time").toDouble();
}

QStringList Steps::agentSteps(int pairingMode, const QString &pin)
{
    return QStringList {"4 start agent agent with parameters --path /org/bluez/agent --delay 1 "
                        "--capabilites NoInputNoOutput "
                            + pin,
                        "$ hciconfig hci0 piscan"}
    + pairingModeSteps(pairingMode);
}

QStringList Steps::bringUpSteps(int pairingMode, const QString &pin)
{
    return QStringList {"4 startStartupSequence requested",
                        "$ modprobe btwilink",
                        "$ connmanctl enable bluetooth",
                        "$ hciconfig hci0 up",
                        "4 bluez started and wait registration",
                        "4 bluez service registered org.bluez",
                        "$ sdptool browse local",
                        "$ sdptool del 0x10000",
                        "4 del headset profile 0"}
    + pairingModeSteps(pairingMode)
        + QStringList {"$ hciconfig hci0 lm master,accept", "4 set lm master,accept 0"}
    + agentSteps(pairingMode, pin) + QStringList {"4 agent started and wait registration"};
}

QStringList Steps::tearDownSteps()
{
    return {"4 forceSyncDown", "$ hciconfig hci0 noscan", "4 forceSyncDown terminate agent",
            "4 forceSyncDown terminate bluez", "$ hciconfig hci0 down"};
}

QStringList Steps::changed(const QStringList &lines, const Changes &changes)
{
    QStringList list;
    for (const QString &line : lines)
        list += changes.value(line, {line});
    return list;
}
