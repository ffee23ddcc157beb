// Who may do what on the product's bus and, by this project's policy, on the system bus: the
// installed policies themselves, held by a bus daemon of the test's own.

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtDBus/QDBusConnection>
#include <QtDBus/QDBusConnectionInterface>
#include <QtDBus/QDBusMessage>
#include <QtTest/QtTest>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace {

const char Driver[] = "org.freedesktop.DBus";

QString contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

bool writeFile(const QString &path, const QString &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content.toUtf8()) >= 0;
}

/** A connection that was made as the user; the bus takes it for the user's from then on. */
QDBusConnection connectAs(const passwd &user, const QString &address)
{
    if (initgroups(user.pw_name, user.pw_gid) != 0 || setegid(user.pw_gid) != 0
        || seteuid(user.pw_uid) != 0)
        qFatal("cannot become %s", user.pw_name);
    const QDBusConnection connection = QDBusConnection::connectToBus(address, "user");
    if (seteuid(0) != 0 || setegid(0) != 0 || setgroups(0, nullptr) != 0)
        qFatal("cannot become root again");
    return connection;
}

/** "yes" whatever the answer is but a denial: who is called need not know the method. */
QString outcomeOf(const QDBusMessage &reply)
{
    const QString error = reply.errorName().section('.', -1);
    if (error == "AccessDenied")
        return "no";
    return QStringList {"NoReply", "ServiceUnknown", "Disconnected"}.contains(error) ? error
                                                                                     : "yes";
}

/** Lets the bus pass on what was sent before, and this process take what has been passed on. */
void settle(const QDBusConnection &connection)
{
    QVERIFY(connection.interface()->isServiceRegistered(Driver).value());
    QCoreApplication::processEvents();
}

} // namespace

class PolicyTest : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    void hear() { m_heard = true; }

private Q_SLOTS:
    void initTestCase();
    void action_data();
    void action();
    void cleanup();
    void cleanupTestCase();

private:
    void startBus(const QString &name, const QString &configuration, const QStringList &services);
    QString outcomeOfSignal(const QDBusConnection &sender, QDBusConnection receiver,
                            const QStringList &words);

    QTemporaryDir m_folder;
    QMap<QString, QString> m_addresses;
    bool m_heard = false;
};

void PolicyTest::initTestCase()
{
    if (geteuid() != 0)
        QSKIP("only root can act as the users that are to be told apart");
    // The bus daemons run as another user.
    QVERIFY(QFile::setPermissions(m_folder.path(), QFile::Permissions(0x7777)));

    const QString additions = m_folder.filePath("bus.d");
    QVERIFY(QDir().mkdir(additions));
    QVERIFY(writeFile(additions + "/player.conf",
                      "<busconfig><policy user=\"root\"><allow own=\"com.example.player\"/>"
                      "</policy></busconfig>"));
    QString product = contentOf(PRODUCT_BUS);
    QVERIFY(product.contains("unix:path=/run/ulmo/bus"));
    QVERIFY(product.contains(PRODUCT_BUS_ADDITIONS));
    product.replace(PRODUCT_BUS_ADDITIONS, additions);
    // A group that every machine has, with a user of the same name in it.
    QVERIFY(product.contains("group=\"ulmo\""));
    product.replace("group=\"ulmo\"", "group=\"games\"");
    startBus("product", product,
             {"com.orbitalis.ulmo.bluetoothmanager", "com.orbitalis.ulmo.soundmanager",
              "com.orbitalis.ulmo.platform"});

    // The machine's own, with this project's policy instead of all others.
    QString system = contentOf("/usr/share/dbus-1/system.conf");
    QVERIFY2(!system.isEmpty(), "the package of the system bus is not installed");
    for (const char *element : {"user", "pidfile", "servicehelper", "include", "includedir"})
        system.remove(QRegularExpression(QString("<%1[ >][^<]*</%1>").arg(element)));
    system.remove("<fork/>").remove("<syslog/>");
    // A copy: the daemon's user may not be let into the folder of the sources.
    const QString policy = m_folder.filePath("policy.conf");
    QVERIFY(writeFile(policy, contentOf(SYSTEM_BUS_POLICY)));
    system.replace("</busconfig>", QString("<include>%1</include></busconfig>").arg(policy));
    startBus("system", system, {"org.bluez"});
}

/// The services run as root, each with a connection of its own, called like the service: who may
/// call one of the names of a connection may call them all. One more is called like the bus.
void PolicyTest::startBus(const QString &name, const QString &configuration,
                          const QStringList &services)
{
    const QString path = m_folder.filePath(name + ".conf");
    const QString listen = "<listen>unix:path=" + m_folder.filePath(name);
    QVERIFY(writeFile(path,
                      QString(configuration).replace(QRegularExpression("<listen>[^<]*"), listen)));
    QProcess *daemon = new QProcess(this);
    daemon->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    daemon->start("setpriv",
                  {"--reuid", "daemon", "--regid", "daemon", "--clear-groups", "dbus-daemon",
                   "--config-file", path, "--nofork", "--print-address"});
    QVERIFY2(daemon->waitForReadyRead(), "the bus daemon does not take the configuration");
    const QString address = QString::fromLatin1(daemon->readLine().trimmed());
    m_addresses.insert(name, address);
    QVERIFY(QDBusConnection::connectToBus(address, name).isConnected());
    for (const QString &service : services)
        QVERIFY2(QDBusConnection::connectToBus(address, service).registerService(service),
                 qPrintable(service));
}

void PolicyTest::action_data()
{
    QTest::addColumn<QString>("bus");
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("action"); // see action()
    QTest::addColumn<QString>("allowed");
    QString bus;
    QStringList users;
    const auto row = [&](const char *allowed, const char *action) {
        for (int i = 0; i < users.count(); ++i)
            QTest::addRow("%s %s", qPrintable(users.at(i)), action)
                << bus << users.at(i) << action << QString(allowed).simplified().split(' ').at(i);
    };

    bus = "product";
    users = QStringList {"root", "games", "nobody", "daemon"};
    row("yes no  no  no", "own com.orbitalis.ulmo.bluetoothmanager");
    row("yes no  no  no", "own com.orbitalis.ulmo.soundmanager");
    row("yes no  no  no", "own com.orbitalis.ulmo.platform");
    row("no  no  no  no", "own com.orbitalis.ulmo.other");
    row("yes no  no  no", "own com.example.player");
    row("yes yes no  no",
        "call com.orbitalis.ulmo.bluetoothmanager com.orbitalis.ulmo.bluetoothinterface GetStatus");
    row("yes yes no  no",
        "call com.orbitalis.ulmo.bluetoothmanager org.freedesktop.DBus.Introspectable Introspect");
    row("yes yes no  no",
        "call com.orbitalis.ulmo.bluetoothmanager org.freedesktop.DBus.Peer Ping");
    row("yes yes no  no",
        "call com.orbitalis.ulmo.bluetoothmanager org.freedesktop.DBus.Properties GetAll");
    row("yes no  no  no", "call com.orbitalis.ulmo.bluetoothmanager com.example.Other Method");
    row("yes no  no  no", "call com.orbitalis.ulmo.soundmanager com.example.Sound StopPlay");
    row("yes no  no  no", "call com.orbitalis.ulmo.platform org.freedesktop.DBus.Peer Ping");
    row("yes yes no  no", "call org.freedesktop.DBus org.freedesktop.DBus ListNames");
    row("yes no  no  no",
        "call org.freedesktop.DBus org.freedesktop.DBus.Monitoring BecomeMonitor");
    row("yes no  no  no", "signal com.orbitalis.ulmo.bluetoothinterface BluetoothOn");
    row("yes no  no  no", "signal com.orbitalis.ulmo.platformevents PowerShutdown");
    row("yes no  no  no", "whisper com.orbitalis.ulmo.platformevents PowerShutdown");
    row("yes yes no  no",
        "hear com.orbitalis.ulmo.bluetoothinterface BluetoothOn "
        "com.orbitalis.ulmo.bluetoothmanager");
    row("yes no  no  no",
        "hear com.orbitalis.ulmo.platformevents PowerShutdown com.orbitalis.ulmo.platform");

    bus = "system";
    users = QStringList {"root", "pulse", "games", "nobody"};
    row("yes no  no  no", "own org.bluez");
    row("yes yes no  no", "call org.bluez org.bluez.Manager DefaultAdapter");
    row("yes no  no  no", "signal org.bluez.Device PropertyChanged");
    row("yes no  no  no", "whisper org.bluez.Device PropertyChanged");
    row("yes no  no  no", "signal org.bluez.AudioSource PropertyChanged");
    row("yes yes yes yes", "hear org.bluez.Device PropertyChanged org.bluez");
}

void PolicyTest::action()
{
    QFETCH(QString, bus);
    QFETCH(QString, user);
    QFETCH(QString, action);
    QFETCH(QString, allowed);
    const passwd *entry = getpwnam(qPrintable(user));
    if (!entry)
        QSKIP("this machine has no such user");
    QDBusConnection connection = connectAs(*entry, m_addresses.value(bus));
    QStringList words = action.split(' ');
    const QString verb = words.takeFirst();

    QString outcome;
    if (!connection.isConnected()) {
        outcome = "no"; // the bus hangs up on somebody who may not connect
    } else if (verb == "own") {
        const uint doNotQueue = 4;
        QDBusMessage call = QDBusMessage::createMethodCall(Driver, "/", Driver, "RequestName");
        outcome = outcomeOf(connection.call(call << words.first() << doNotQueue));
    } else if (verb == "call") {
        outcome = outcomeOf(connection.call(
            QDBusMessage::createMethodCall(words.at(0), "/", words.at(1), words.at(2)),
            QDBus::BlockWithGui));
    } else if (verb == "hear") {
        outcome = outcomeOfSignal(QDBusConnection(words.takeLast()), connection, words);
    } else {
        const QDBusConnection listener(bus);
        if (verb == "whisper") // to the listener alone
            words << listener.baseService();
        outcome = outcomeOfSignal(connection, listener, words);
    }
    QCOMPARE(outcome, allowed);
}

/// Whether the signal arrives: interface, name and, if it is not for everybody, the receiver.
QString PolicyTest::outcomeOfSignal(const QDBusConnection &sender, QDBusConnection receiver,
                                    const QStringList &words)
{
    m_heard = false;
    receiver.connect(QString(), QString(), words.at(0), words.at(1), this, SLOT(hear()));
    settle(receiver);
    sender.send(words.size() == 3
                    ? QDBusMessage::createTargetedSignal(words.at(2), "/", words.at(0), words.at(1))
                    : QDBusMessage::createSignal("/", words.at(0), words.at(1)));
    settle(sender);
    settle(receiver);
    receiver.disconnect(QString(), QString(), words.at(0), words.at(1), this, SLOT(hear()));
    return m_heard ? "yes" : "no";
}

void PolicyTest::cleanup()
{
    QDBusConnection::disconnectFromBus("user");
}

void PolicyTest::cleanupTestCase()
{
    for (QProcess *daemon : findChildren<QProcess *>()) {
        daemon->terminate();
        daemon->waitForFinished();
    }
}

QTEST_GUILESS_MAIN(PolicyTest)
#include "tst_policies.moc"
