// agent: the service's pairing agent at BlueZ 5, with the options of BlueZ 4's own test agent:
//     agent --path OBJECT-PATH --delay SECONDS --capabilites CAPABILITY PIN
// Ends with 0 after SIGTERM and with BlueZ 5, and with 1 when it cannot begin.

#include "Bus.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QTimer>
#include <QtDBus/QDBusContext>
#include <QtDBus/QDBusObjectPath>
#include <QtDBus/QDBusServiceWatcher>

namespace {

/** What org.bluez.Agent1 asks of something without a display and without keys. */
class Agent : public QObject, public QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.bluez.Agent1")

public:
    QString pin;
    QTimer delay;

public Q_SLOTS:
    void Release() { QCoreApplication::quit(); }
    void Cancel() { delay.disconnect(); }

    QString RequestPinCode(const QDBusObjectPath &)
    {
        const QDBusMessage request = message();
        const QDBusConnection bus = connection();
        setDelayedReply(true);
        Cancel();
        connect(&delay, &QTimer::timeout, this, [=] { bus.send(request.createReply(pin)); });
        delay.start();
        return QString();
    }

    // Without a PIN phones pair only where the service has switched that on at the adapter.
    void RequestConfirmation(const QDBusObjectPath &, uint) {}
    void RequestAuthorization(const QDBusObjectPath &) {}

    void AuthorizeService(const QDBusObjectPath &, const QString &uuid)
    {
        // Sound and remote control: A2DP source, sink and distribution, AVRCP in its three roles.
        const QRegExp allowed("0000110(a|b|d|c|e|f)-0000-1000-8000-00805f9b34fb");
        if (!allowed.exactMatch(uuid.toLower()))
            sendErrorReply("org.bluez.Error.Rejected", "not a service of a loudspeaker");
    }
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    // Spelt as the service spells it.
    const QStringList options = {"path", "delay", "capabilites"};
    for (const QString &option : options)
        parser.addOption({option, "", option});
    parser.addPositionalArgument("PIN", "");
    parser.process(application);
    const QStringList pins = parser.positionalArguments();
    if (pins.size() != 1 || pins.at(0).isEmpty() || pins.at(0).size() > 16)
        parser.showHelp(1);
    onTermination(&QCoreApplication::quit);

    Agent agent;
    agent.pin = pins.at(0);
    agent.delay.setSingleShot(true);
    agent.delay.setInterval(parser.value("delay").toInt() * 1000);
    QDBusConnection bus = machineBus();
    onBusLost(bus, &application, SLOT(quit()));
    QDBusServiceWatcher watcher("org.bluez", bus, QDBusServiceWatcher::WatchForUnregistration);
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceUnregistered, &QCoreApplication::quit);
    const QVariant path = objectPath(parser.value("path"));
    const auto ask = [bus](const QString &method, const QVariantList &arguments) {
        const QDBusMessage answer = bus.call(
            methodCall("org.bluez", "/org/bluez", "org.bluez.AgentManager1." + method, arguments));
        if (isError(answer))
            warn(method + ": " + answer.errorMessage());
        return !isError(answer);
    };
    if (!bus.registerObject(parser.value("path"), &agent, QDBusConnection::ExportAllSlots)
        || !ask("RegisterAgent", {path, parser.value("capabilites")})
        || !ask("RequestDefaultAgent", {path}))
        return 1;
    const int status = application.exec();
    ask("UnregisterAgent", {path});
    return status;
}

#include "agent.moc"
