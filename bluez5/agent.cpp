// agent: the service's pairing agent at BlueZ 5, with the options of BlueZ 4's own test agent.
// Ends with 0 after SIGTERM and with BlueZ 5, and with 1 when it cannot begin.

#include "Bus.h"

/** What org.bluez.Agent1 asks of something without a display and without keys. */
class Agent : public QObject, public QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.bluez.Agent1")

public:
    explicit Agent(const QString &pin) : m_pin(pin) { }

public Q_SLOTS:
    void Release() { QCoreApplication::quit(); }
    void Cancel() { }
    QString RequestPinCode(const QDBusObjectPath &) { return m_pin; }
    // Without a PIN phones pair only where the service has switched that on at the adapter.
    void RequestConfirmation(const QDBusObjectPath &, uint) { }
    void RequestAuthorization(const QDBusObjectPath &) { }
    void AuthorizeService(const QDBusObjectPath &, const QString &uuid)
    {
        // Sound and remote control: A2DP source, sink and distribution, AVRCP in its three roles.
        const QRegExp allowed("0000110[a-f]-0000-1000-8000-00805f9b34fb", Qt::CaseInsensitive);
        if (!allowed.exactMatch(uuid))
            sendErrorReply("org.bluez.Error.Rejected", "not a service of a loudspeaker");
    }

private:
    const QString m_pin;
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 8 || arguments[5] != "--capabilites") { // as the service spells it
        fputs("usage: agent --path PATH --delay SECONDS --capabilites CAPABILITY PIN\n", stderr);
        return 1;
    }
    quitOnTermination();
    Agent agent(arguments[7]);
    QDBusConnection bus = machineBus();
    bus.registerObject(arguments[2], &agent, QDBusConnection::ExportAllSlots);
    QDBusServiceWatcher watcher("org.bluez", bus, QDBusServiceWatcher::WatchForUnregistration);
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceUnregistered, &QCoreApplication::quit);
    bus.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                "Disconnected", &application, SLOT(quit()));
    const auto ask = [&](const QString &method, const QVariantList &values) {
        const QDBusMessage call =
            methodCall("org.bluez", "/org/bluez", "org.bluez.AgentManager1", method, values);
        const QString error = bus.call(call, QDBus::Block, 5000).errorMessage();
        if (!error.isEmpty())
            fail(method + ": " + error);
    };
    const QVariant path = objectPath(arguments[2]);
    ask("RegisterAgent", {path, arguments[6]});
    ask("RequestDefaultAgent", {path});
    application.exec();
    if (bus.interface()->isServiceRegistered("org.bluez")) // it would be started for a call
        ask("UnregisterAgent", {path});
}

#include "agent.moc"
