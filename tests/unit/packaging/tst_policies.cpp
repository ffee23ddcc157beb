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

#include <pwd.h>
#include <unistd.h>

namespace {

// Users that every Debian machine has. "games" is in the group of callers, whose name the test
// puts in place of the real one.
const char Member[] = "games";
const char MemberGroup[] = "games";
const char Stranger[] = "nobody";
const char DaemonUser[] = "daemon";

const char Bluetooth[] = "com.orbitalis.ulmo.bluetoothmanager";
const char BluetoothInterface[] = "com.orbitalis.ulmo.bluetoothinterface";
const char SoundManager[] = "com.orbitalis.ulmo.soundmanager";
const char Platform[] = "com.orbitalis.ulmo.platform";
const char PlatformInterface[] = "com.orbitalis.ulmo.platformevents";
const char BlueZ[] = "org.bluez";
const char DriverName[] = "org.freedesktop.DBus";

/** What comes of owning a name that a service has, to whom the bus would give it. */
const char Owned[] = "owned by somebody else";

struct Row
{
    const char *action;
    /** Of each of the users. */
    QStringList allowed;
};

/** A row for each action and user; an action is what bus-user takes. */
void addRows(const QStringList &users, const QList<Row> &rows)
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("action");
    QTest::addColumn<QString>("allowed");
    for (const Row &row : rows) {
        for (int i = 0; i < users.count(); ++i)
            QTest::addRow("%s %s", qPrintable(users.at(i)), row.action)
                << users.at(i) << row.action << row.allowed.at(i);
    }
}

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

} // namespace

class PolicyTest : public QObject
{
    Q_OBJECT

public Q_SLOTS:
    void heard(const QDBusMessage &message)
    {
        m_heard << message.service() + ' ' + message.member();
    }
    void ownerChanged(const QString &name, const QString &, const QString &newOwner)
    {
        if (newOwner.isEmpty())
            m_gone << name;
    }

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanupTestCase();
    void productBus_data();
    void productBus();
    void otherServices_data();
    void otherServices();
    void systemBus_data();
    void systemBus();

private:
    struct Bus
    {
        QProcess daemon;
        QString address;
    };

    void startBus(Bus &bus, const QString &configuration, const QString &user);
    void listen(const Bus &bus);
    void tryAction(const Bus &bus, const QString &service);
    QString end(QProcess &process);

    QTemporaryDir m_folder;
    Bus m_product;
    Bus m_system;
    QStringList m_heard;
    QStringList m_gone;
};

void PolicyTest::initTestCase()
{
    if (geteuid() != 0)
        QSKIP("only root can act as the users that are to be told apart");
    // The daemons run as other users.
    QVERIFY(QFile::setPermissions(m_folder.path(), QFile::Permissions(0x7777)));

    const QString additions = m_folder.filePath("bus.d");
    QVERIFY(QDir().mkdir(additions));
    QVERIFY(writeFile(additions + "/player.conf",
                      "<busconfig><policy user=\"root\"><allow own=\"com.example.player\"/>"
                      "</policy></busconfig>"));
    QString product = contentOf(PRODUCT_BUS);
    QVERIFY(product.contains("unix:path=/run/ulmo/bus"));
    QVERIFY(product.contains(PRODUCT_BUS_ADDITIONS));
    QVERIFY(product.contains("group=\"ulmo\""));
    product.replace("unix:path=/run/ulmo/bus", "unix:path=" + m_folder.filePath("product"));
    product.replace(PRODUCT_BUS_ADDITIONS, additions);
    product.replace("group=\"ulmo\"", QString("group=\"%1\"").arg(MemberGroup));
    startBus(m_product, product, DaemonUser);

    // The machine's own, with this project's policy instead of all others.
    QString system = contentOf("/usr/share/dbus-1/system.conf");
    QVERIFY2(!system.isEmpty(), "the package of the system bus is not installed");
    for (const char *element : {"user", "pidfile", "servicehelper", "include", "includedir"})
        system.remove(QRegularExpression(QString("<%1[ >][^<]*</%1>").arg(element)));
    system.remove("<fork/>").remove("<syslog/>");
    system.replace(QRegularExpression("<listen>[^<]*"),
                   "<listen>unix:path=" + m_folder.filePath("system"));
    // A copy: the daemon's user may not be let into the folder of the sources.
    const QString policy = m_folder.filePath("policy.conf");
    QVERIFY(writeFile(policy, contentOf(SYSTEM_BUS_POLICY)));
    system.replace("</busconfig>", QString("<include>%1</include></busconfig>").arg(policy));
    startBus(m_system, system, DaemonUser);

    // The services, which run as root, each with a connection of its own: who may call one of the
    // names of a connection may call them all.
    for (const char *name : {Bluetooth, SoundManager, Platform})
        QVERIFY2(QDBusConnection::connectToBus(m_product.address, name).registerService(name),
                 name);
    QVERIFY(QDBusConnection::connectToBus(m_system.address, BlueZ).registerService(BlueZ));
    listen(m_product);
    listen(m_system);
}

void PolicyTest::startBus(Bus &bus, const QString &configuration, const QString &user)
{
    const QString path = m_folder.filePath(QString("bus-%1.conf").arg(quintptr(&bus), 0, 16));
    QVERIFY(writeFile(path, configuration));
    bus.daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    bus.daemon.start("setpriv",
                     {"--reuid", user, "--regid", user, "--clear-groups", "dbus-daemon",
                      "--config-file", path, "--nofork", "--print-address"});
    QVERIFY(bus.daemon.waitForStarted());
    QVERIFY2(bus.daemon.waitForReadyRead(), "the bus daemon does not take the configuration");
    bus.address = QString::fromLatin1(bus.daemon.readLine().trimmed());
}

/// Takes note of every signal that concerns the test, as root, on a connection named as the bus.
void PolicyTest::listen(const Bus &bus)
{
    QDBusConnection connection = QDBusConnection::connectToBus(bus.address, bus.address);
    for (const char *interface :
         {BluetoothInterface, PlatformInterface, "org.bluez.Device", "org.bluez.AudioSource"})
        connection.connect(QString(), QString(), interface, QString(), this,
                           SLOT(heard(QDBusMessage)));
    connection.connect(DriverName, QString(), DriverName, "NameOwnerChanged", this,
                       SLOT(ownerChanged(QString, QString, QString)));
}

void PolicyTest::init()
{
    m_heard.clear();
    m_gone.clear();
}

void PolicyTest::cleanupTestCase()
{
    for (Bus *bus : {&m_product, &m_system}) {
        bus->daemon.terminate();
        bus->daemon.waitForFinished();
    }
}

/// Runs the row's action as the row's user; what the user is to hear comes from \p service.
void PolicyTest::tryAction(const Bus &bus, const QString &service)
{
    QFETCH(QString, user);
    QFETCH(QString, action);
    QFETCH(QString, allowed);
    if (!getpwnam(qPrintable(user)))
        QSKIP("this machine has no such user");

    QStringList words = action.split(' ');
    words.replaceInStrings("LISTENER", QDBusConnection(bus.address).baseService());
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(BUS_USER, QStringList {user, bus.address} + words);
    QVERIFY(process.waitForReadyRead());
    const QString uniqueName = QString::fromLatin1(process.readLine().trimmed());
    if (uniqueName == "no") {
        QCOMPARE(uniqueName, allowed);
        QVERIFY(process.waitForFinished());
        return;
    }
    QVERIFY2(uniqueName.startsWith(':'), qPrintable(uniqueName));

    if (words.first() == "signal") {
        QCOMPARE(end(process), QString("yes"));
        QTRY_VERIFY_WITH_TIMEOUT(m_gone.contains(uniqueName), 20000);
        const bool arrived = m_heard.contains(uniqueName + ' ' + words.last());
        QCOMPARE(arrived ? "yes" : "no", qPrintable(allowed));
        return;
    }
    if (words.first() == "hear") {
        while (!process.canReadLine())
            QVERIFY(process.waitForReadyRead());
        QCOMPARE(process.readLine().trimmed(), QByteArray("hearing"));
        QDBusConnection connection(service);
        QVERIFY(connection.send(QDBusMessage::createSignal("/", words.at(1), words.at(2))));
        const QString endMark = QDBusConnection::connectToBus(bus.address, "end").baseService();
        process.write(endMark.toLatin1() + '\n');
        // When the bus answers, it has passed on what was sent before.
        QVERIFY(connection.interface()->isServiceRegistered(service).value());
        QDBusConnection::disconnectFromBus("end");
    }
    QCOMPARE(end(process), allowed);
}

/// The last word, while the event loop runs and the services in this process answer.
QString PolicyTest::end(QProcess &process)
{
    if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 30000))
        return "did not end";
    return QString::fromLatin1(process.readAll().trimmed());
}

void PolicyTest::productBus_data()
{
    // clang-format off
    addRows({"root", Member, Stranger, DaemonUser}, {
        {"own com.orbitalis.ulmo.bluetoothmanager", {Owned, "no", "no", "no"}},
        {"own com.orbitalis.ulmo.soundmanager", {Owned, "no", "no", "no"}},
        {"own com.orbitalis.ulmo.platform", {Owned, "no", "no", "no"}},
        {"own com.orbitalis.ulmo.other", {"no", "no", "no", "no"}},
        {"own com.example.player", {"yes", "no", "no", "no"}},
        {"call com.orbitalis.ulmo.bluetoothmanager com.orbitalis.ulmo.bluetoothinterface GetStatus",
         {"yes", "yes", "no", "no"}},
        {"call com.orbitalis.ulmo.bluetoothmanager org.freedesktop.DBus.Introspectable Introspect",
         {"yes", "yes", "no", "no"}},
        {"call com.orbitalis.ulmo.bluetoothmanager org.freedesktop.DBus.Peer Ping",
         {"yes", "yes", "no", "no"}},
        {"call com.orbitalis.ulmo.bluetoothmanager org.freedesktop.DBus.Properties GetAll",
         {"yes", "yes", "no", "no"}},
        {"call com.orbitalis.ulmo.bluetoothmanager com.example.Other Method",
         {"yes", "no", "no", "no"}},
        {"call com.orbitalis.ulmo.soundmanager com.example.Sound StopPlay",
         {"yes", "no", "no", "no"}},
        {"call com.orbitalis.ulmo.platform org.freedesktop.DBus.Peer Ping",
         {"yes", "no", "no", "no"}},
        {"call org.freedesktop.DBus org.freedesktop.DBus ListNames", {"yes", "yes", "no", "no"}},
        {"call org.freedesktop.DBus org.freedesktop.DBus.Monitoring BecomeMonitor",
         {"yes", "no", "no", "no"}},
        {"signal - / com.orbitalis.ulmo.bluetoothinterface BluetoothOn",
         {"yes", "no", "no", "no"}},
        {"signal - / com.orbitalis.ulmo.platformevents PowerShutdown",
         {"yes", "no", "no", "no"}},
        {"signal LISTENER / com.orbitalis.ulmo.platformevents PowerShutdown",
         {"yes", "no", "no", "no"}},
        {"hear com.orbitalis.ulmo.bluetoothinterface BluetoothOn", {"yes", "yes", "no", "no"}},
    });
    // clang-format on
}

void PolicyTest::productBus()
{
    tryAction(m_product, Bluetooth);
}

void PolicyTest::otherServices_data()
{
    addRows({"root", Member},
            {{"hear com.orbitalis.ulmo.platformevents PowerShutdown", {"yes", "no"}}});
}

void PolicyTest::otherServices()
{
    tryAction(m_product, Platform);
}

void PolicyTest::systemBus_data()
{
    // clang-format off
    addRows({"root", "pulse", Member, Stranger}, {
        {"own org.bluez", {Owned, "no", "no", "no"}},
        {"call org.bluez org.bluez.Manager DefaultAdapter", {"yes", "yes", "no", "no"}},
        {"signal - / org.bluez.Device PropertyChanged", {"yes", "no", "no", "no"}},
        {"signal LISTENER / org.bluez.Device PropertyChanged", {"yes", "no", "no", "no"}},
        {"signal - / org.bluez.AudioSource PropertyChanged", {"yes", "no", "no", "no"}},
        {"hear org.bluez.Device PropertyChanged", {"yes", "yes", "yes", "yes"}},
    });
    // clang-format on
}

void PolicyTest::systemBus()
{
    tryAction(m_system, BlueZ);
}

QTEST_GUILESS_MAIN(PolicyTest)
#include "tst_policies.moc"
