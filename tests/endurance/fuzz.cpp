#include "Peer.h"
#include "Road.h"
#include "Run.h"
#include "Steps.h"
#include "Watch.h"

#include <QTest>

namespace {

const char Service[] = "com.orbitalis.ulmo.bluetoothmanager";
const char Object[] = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj";
const char Interface[] = "com.orbitalis.ulmo.bluetoothinterface";
const char PlatformPath[] = "/com/orbitalis/ulmo/platform";
const char PlatformInterface[] = "com.orbitalis.ulmo.platformevents";
const int MessagesPerStep = 25;
const int MostArguments = 4;

Message signalMessage(const QByteArray &path, const QByteArray &interface, const QByteArray &member)
{
    return owned(dbus_message_new_signal(path, interface, member));
}

} // namespace

/**
 * Messages as nobody would send them reach the service from everybody who can send some. None of
 * them ends it, and none from somebody who is not BlueZ, the platform or the like has an effect.
 */
class Fuzz : public QObject
{
    Q_OBJECT

public:
    explicit Fuzz(Run &run) : m_run(run), m_random(run.seed()) { }

private slots:
    void strangersHaveNoEffect();
    void servicesMayAnswerAnything();

private:
    Message call();
    Message signalOfBluez(const QByteArray &phone);
    Message signalOfPlatform();
    Message reply(const QByteArray &destination);
    void maybeTo(const Message &message, const QByteArray &destination);
    void check(VirtualProduct &product, Watch &watch);

    Run &m_run;
    RandomMessage m_random;
};

/// A call that the service has to refuse, or one that changes nothing.
Message Fuzz::call()
{
    const QByteArray interface =
        m_random.oneOf({Interface, Interface, "", "org.freedesktop.DBus.Properties",
                        "org.freedesktop.DBus.Introspectable", "org.freedesktop.DBus.Peer",
                        "org.freedesktop.DBus", "org.bluez.Device"});
    const QByteArray path = m_random.oneOf({Object, Object, Object, "/", "/nowhere"});
    const QByteArray member = m_random.oneOf(
        {"SetEnabled", "SetPid", "SetVolume", "SetMute", "RemoveDevice", "GetStatus", "Get", "Set",
         "GetAll", "Introspect", "Enable", "quit", "deleteLater", "AudioSourcePropertyChanged",
         "DevicePropertyChanged", "BluetoothOn", "serviceBluezRegistered"});
    const Message message = owned(dbus_message_new_method_call(
        Service, path, interface.isEmpty() ? nullptr : interface.constData(), member));
    // One that nobody would take for a call meant well.
    if (member == "SetEnabled" || member == "SetPid" || m_random.onceIn(4)) {
        m_random.appendText(message, m_random.text() + '?');
        if (member == "DevicePropertyChanged" || member == "AudioSourcePropertyChanged")
            m_random.appendVariant(message);
    }
    m_random.appendArguments(message, MostArguments);
    dbus_message_set_no_reply(message.get(), m_random.onceIn(2));
    return message;
}

/// Of any shape, or what BlueZ might say of the phone, and with it an end to the music.
Message Fuzz::signalOfBluez(const QByteArray &phone)
{
    const Message message = signalMessage(
        m_random.oneOf({phone, phone, "/", "/spoofed"}),
        m_random.oneOf({"org.bluez.Device", "org.bluez.AudioSource", "org.bluez.Adapter"}),
        m_random.oneOf({"PropertyChanged", "PropertyChanged", "DeviceRemoved"}));
    if (m_random.onceIn(3)) {
        m_random.appendArguments(message, MostArguments);
    } else {
        m_random.appendText(message, m_random.oneOf({"Connected", "State", "Trusted"}));
        m_random.appendVariant(message);
    }
    return message;
}

Message Fuzz::signalOfPlatform()
{
    const Message message = signalMessage(
        PlatformPath, PlatformInterface,
        m_random.oneOf({"PowerSuspend", "PowerShutdown", "PowerReboot", "SupervisorShutdown"}));
    if (m_random.onceIn(2))
        m_random.appendText(message, m_random.text());
    m_random.appendArguments(message, MostArguments);
    return message;
}

/// To a call that the service may be waiting for.
Message Fuzz::reply(const QByteArray &destination)
{
    const Message message = owned(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    const int serials = 400;
    dbus_message_set_reply_serial(message.get(), dbus_uint32_t(1 + m_random.below(serials)));
    dbus_message_set_destination(message.get(), destination);
    m_random.appendArguments(message, MostArguments);
    return message;
}

void Fuzz::maybeTo(const Message &message, const QByteArray &destination)
{
    if (m_random.onceIn(2))
        dbus_message_set_destination(message.get(), destination);
}

void Fuzz::check(VirtualProduct &product, Watch &watch)
{
    QVERIFY2(product.call("GetStatus").size() == 4, "GetStatus is not answered");
    const QString wrong = watch.follow();
    QVERIFY2(wrong.isEmpty(), qPrintable(wrong));
}

void Fuzz::strangersHaveNoEffect()
{
    Road product;
    product.bring("playing");
    Watch watch(product);
    check(product, watch);
    Peer onSession(product.sessionBusAddress());
    Peer onSystem(product.systemBusAddress());
    QVERIFY(onSession.isConnected() && onSystem.isConnected());
    const QByteArray phone = product.path("anna").toUtf8();
    const QByteArray sessionName = onSession.ownerOf(Service);
    const QVector<QJsonObject> serviceCalls =
        product.entries({{"bus", "system"}, {"kind", "call"}, {"senderName", "service"}});
    QVERIFY(!sessionName.isEmpty() && !serviceCalls.isEmpty());
    const QByteArray systemName = serviceCalls.last().value("sender").toString().toUtf8();
    const QJsonArray status = product.call("GetStatus");
    const int from = product.settle();

    int done = 0;
    for (; m_run.goesOn(done); ++done) {
        for (int i = 0; i < MessagesPerStep; ++i) {
            const Message ofBluez = signalOfBluez(phone);
            maybeTo(ofBluez, systemName);
            onSystem.send(ofBluez);
            const Message ofBus =
                signalMessage(DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged");
            for (const QByteArray &argument : {QByteArray("org.bluez"), systemName, QByteArray()})
                m_random.appendText(ofBus, argument);
            dbus_message_set_destination(ofBus.get(), systemName);
            onSystem.send(ofBus);
            onSystem.send(reply(systemName));
            const Message ofPlatform = signalOfPlatform();
            maybeTo(ofPlatform, sessionName);
            onSession.send(ofPlatform);
            onSession.send(reply(sessionName));
            onSession.send(call());
        }
        onSystem.flush();
        onSession.flush();
        check(product, watch);
    }
    product.settle();
    QCOMPARE(product.call("GetStatus"), status);
    static const QStringList telling {
        "DevicePropertyChanged",  "AudioSourcePropertyChanged", "[!]",
        "BluetoothManager close", "[DBUS|Internal] SetEnabled", "bluez service"};
    for (const QString &message : product.messages(from)) {
        if (message.startsWith("DevicePropertyChanged (org.bluez.Device)/settled "))
            continue;
        for (const QString &beginning : telling)
            QVERIFY2(!message.startsWith(beginning), qPrintable(message));
    }
    QVERIFY(watch.alive("pulseaudio").size() == 1);
}

void Fuzz::servicesMayAnswerAnything()
{
    // A daemon that never comes to the bus leaves its name to the stand-in.
    Road::Options options = Steps::switchedOff();
    options.tell << "fault bluetoothd hang"
                 << "fault soundmanager absent";
    VirtualProduct product(options);
    Steps::waitUntilRunning(product);
    Watch watch(product);
    StandIn soundManager(product.sessionBusAddress(), "com.orbitalis.ulmo.soundmanager",
                         m_run.seed());
    product.call("SetEnabled", {"b:true"});
    StandIn bluez(product.systemBusAddress(), "org.bluez", m_run.seed());
    QVERIFY(bluez.isThere() && soundManager.isThere());
    product.expect(
        {{"kind", "signal"}, {"member", "BluetoothOn"}, {"arguments", QJsonArray {true}}});

    const QVector<QByteArray> states {"disconnected", "connecting", "connected", "playing"};
    for (int done = 0; m_run.goesOn(done); ++done) {
        for (int i = 0; i < MessagesPerStep; ++i) {
            const QByteArray path = m_random.oneOf({"/a/dev_1", "/a/dev_1", "/dev_2", "/"});
            if (m_random.onceIn(2)) {
                bluez.send(signalOfBluez(path));
                continue;
            }
            const bool ofSource = m_random.onceIn(2);
            const Message message = signalMessage(
                path, ofSource ? "org.bluez.AudioSource" : "org.bluez.Device", "PropertyChanged");
            m_random.appendText(message, ofSource ? "State" : "Connected");
            m_random.appendVariant(message, m_random.oneOf(states + QVector<QByteArray> {"true"}));
            bluez.send(message);
        }
        product.attempt("call "
                        + m_run.oneOf({"DisconnectDevice", "RemoveAllDevices",
                                       "RemoveDevice s:00:11:22:33:44:55", "GetStatus"}));
        check(product, watch);
    }
    QVERIFY2(bluez.answers() > 0 && soundManager.answers() > 0, "nobody was asked anything");
    product.call("SetEnabled", {"b:false"});
    check(product, watch);
}

ENDURANCE_MAIN(Fuzz, 150)
#include "fuzz.moc"
