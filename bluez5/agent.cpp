// agent: the service's pairing agent at BlueZ 5, with the options of BlueZ 4's own test agent.
// Ends with 0 after SIGTERM and with BlueZ 5, and with 1 when it cannot begin.

#include "Bus.h"

/** What org.bluez.Agent1 asks of something without a display and without keys. */
class Agent : public QObject, public QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.bluez.Agent1")

public:
    Agent(const QString &pin, int delay) : m_pin(pin), m_delay(delay) { }

public Q_SLOTS:
    void Release() { QCoreApplication::quit(); }
    void Cancel() { } // nobody waits for the PIN then

    QString RequestPinCode(const QDBusObjectPath &)
    {
        const QDBusMessage request = message();
        setDelayedReply(true);
        QTimer::singleShot(m_delay, this, [=] { machineBus().send(request.createReply(m_pin)); });
        return QString();
    }

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
    const int m_delay; // in milliseconds
};

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    // Spelt as the service spells it.
    if (arguments.size() != 8 || arguments[1] != "--path" || arguments[3] != "--delay"
        || arguments[5] != "--capabilites") {
        fputs("usage: agent --path PATH --delay SECONDS --capabilites CAPABILITY PIN\n", stderr);
        return 1;
    }

    quitOnTermination();
    Agent agent(arguments[7], arguments[4].toInt() * 1000);
    QDBusConnection bus = machineBus();
    bus.registerObject(arguments[2], &agent, QDBusConnection::ExportAllSlots);
    QDBusServiceWatcher watcher("org.bluez", bus, QDBusServiceWatcher::WatchForUnregistration);
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceUnregistered, &QCoreApplication::quit);
    bus.connect(QString(), "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                "Disconnected", &application, SLOT(quit()));
    const auto ask = [&](const QString &method, const QVariantList &values) {
        QDBusMessage call = QDBusMessage::createMethodCall("org.bluez", "/org/bluez",
                                                           "org.bluez.AgentManager1", method);
        call.setArguments(values);
        const QString error = bus.call(call, QDBus::Block, 5000).errorMessage();
        return error.isEmpty() ? error : method + ": " + error;
    };
    QString error = ask("RegisterAgent", {objectPath(arguments[2]), arguments[6]});
    if (error.isEmpty())
        error = ask("RequestDefaultAgent", {objectPath(arguments[2])});
    if (!error.isEmpty())
        fail(error);
    application.exec();
    if (bus.interface()->isServiceRegistered("org.bluez")) // it would be started for a call
        ask("UnregisterAgent", {objectPath(arguments[2])});
}

#include "agent.moc"
