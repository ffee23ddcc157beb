// Power and supervisor events: from the product's platform on the session bus and from the login
// manager on the system bus.
#include "LogInterface.h"
#include "PrivateBus.h"
#include "StandardError.h"
#include "UlmoFeatureBase.h"

#include <QDBusConnectionInterface>
#include <QDBusUnixFileDescriptor>
#include <QDBusVirtualObject>
#include <QtTest>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <poll.h>
#include <unistd.h>

LogInterface *_logInterface = nullptr;

namespace {
const char PlatformName[] = "com.orbitalis.ulmo.platform";
const char PlatformPath[] = "/com/orbitalis/ulmo/platform";
const char PlatformInterface[] = "com.orbitalis.ulmo.platformevents";
const char LoginName[] = "org.freedesktop.login1";
const char LoginPath[] = "/org/freedesktop/login1";
const char LoginInterface[] = "org.freedesktop.login1.Manager";

/** Returns when the bus has handled everything that the connection sent before. */
void settle(const QDBusConnection &connection)
{
    const QDBusMessage query = QDBusMessage::createMethodCall(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId");
    QCOMPARE(connection.call(query).type(), QDBusMessage::ReplyMessage);
}

/** The bus has passed it on when this returns. */
void emitSignal(const QDBusConnection &connection, const QString &path, const QString &interface,
                const QString &name, const QVariantList &arguments)
{
    QDBusMessage signal = QDBusMessage::createSignal(path, interface, name);
    signal.setArguments(arguments);
    connection.send(signal);
    settle(connection);
}

class Feature : public UlmoFeatureBase
{
public:
    Feature() : UlmoFeatureBase("/object")
    {
        // What the constructor has only sent is handled by the buses before the test goes on.
        settle(QDBusConnection::sessionBus());
        settle(QDBusConnection::systemBus());
    }

    void ulmoPowerOnReboot(const QString &reason) override { called("reboot " + reason); }
    void ulmoPowerOnShutdown(const QString &reason) override { called("shutdown " + reason); }
    void ulmoPowerOnSuspend(const QString &reason) override { called("suspend " + reason); }
    void ulmoSupOnShutdown() override { called("supervisor"); }

    QStringList calls;
    std::function<void()> duringCall;

private:
    void called(const QString &call)
    {
        calls << call;
        if (duringCall)
            duringCall();
    }
};

/** A login manager on the system bus. */
class LoginMock : public QDBusVirtualObject
{
public:
    explicit LoginMock(const char *connection) : m_connection(connection)
    {
        m_connection.registerVirtualObject(LoginPath, this);
        m_connection.registerService(LoginName);
    }

    ~LoginMock()
    {
        m_connection.unregisterService(LoginName);
        m_connection.unregisterObject(LoginPath);
        closeInhibitor();
    }

    QString introspect(const QString &) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.member() == "Get" && !scheduledKind.isEmpty()
            && message.arguments() == QVariantList {LoginInterface, "ScheduledShutdown"}) {
            QDBusArgument schedule;
            schedule.beginStructure();
            schedule << scheduledKind << scheduledTime;
            schedule.endStructure();
            return connection.send(message.createReply(
                QVariant::fromValue(QDBusVariant(QVariant::fromValue(schedule)))));
        }
        if (message.member() != "Inhibit" || refuses)
            return connection.send(message.createErrorReply("x.Refused", "not today"));
        inhibitions << message.arguments();
        closeInhibitor();
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            qFatal("no pipe");
        m_inhibitor = ends[0];
        QDBusUnixFileDescriptor given;
        given.giveFileDescriptor(ends[1]);
        return connection.send(message.createReply(QVariant::fromValue(given)));
    }

    void announce(const QString &name, const QVariantList &arguments)
    {
        emitSignal(m_connection, LoginPath, LoginInterface, name, arguments);
    }

    /** Whether the other end of the last inhibitor given out is open somewhere. */
    bool isInhibited() const
    {
        struct pollfd inhibitor = {m_inhibitor, 0, 0};
        return m_inhibitor >= 0 && poll(&inhibitor, 1, 0) == 0;
    }

    QString scheduledKind;
    qulonglong scheduledTime = 0; // microseconds since 1970, 0 for at once
    bool refuses = false;
    QList<QVariantList> inhibitions;

private:
    void closeInhibitor()
    {
        if (m_inhibitor >= 0)
            close(m_inhibitor);
        m_inhibitor = -1;
    }

    QDBusConnection m_connection;
    int m_inhibitor = -1;
};

} // namespace

class TestFeatureBase : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(qputenv("DBUS_SESSION_BUS_ADDRESS", m_session.address().toLatin1()));
        QVERIFY(qputenv("DBUS_SYSTEM_BUS_ADDRESS", m_system.address().toLatin1()));
        for (const char *name : {"platform", "other"})
            QVERIFY(m_session.connection(name).isConnected());
        for (const char *name : {"login", "other login"})
            QVERIFY(m_system.connection(name).isConnected());
    }

    void init()
    {
        m_standardError.reset(new StandardError);
        m_log.reset(new LogInterface("/log"));
        _logInterface = m_log.get();
    }

    void cleanup()
    {
        _logInterface = nullptr;
        QDBusConnection("platform").unregisterService(PlatformName);
        QDBusConnection("other").unregisterService(PlatformName);
        const QByteArray logged = m_standardError->take();
        m_standardError.reset();
        QCOMPARE(logged, QByteArray());
    }

    /** Its well-formed events, and nothing that others say. */
    void platformEvents()
    {
        Feature feature;
        QVERIFY(feature.isInitialized());
        emitPlatformSignal("other", "PowerShutdown", {"nobody owns the name"});
        QVERIFY(QDBusConnection("platform").registerService(PlatformName));
        emitPlatformSignal("other", "PowerShutdown", {"broadcast"});
        QDBusConnection("other").send(QDBusMessage::createTargetedSignal(
            QDBusConnection::sessionBus().baseService(), PlatformPath, PlatformInterface,
            "SupervisorShutdown"));
        settle(QDBusConnection("other"));
        emitPlatformSignal("platform", "PowerSuspend", {}); // without a reason
        emitPlatformSignal("platform", "PowerReboot", {1}); // with one of another type
        emitPlatformSignal("platform", "PowerNap", {"unknown"});
        emitPlatformSignal("platform", "PowerShutdown", {"restore"});
        emitPlatformSignal("platform", "PowerReboot", {""});
        emitPlatformSignal("platform", "SupervisorShutdown", {});

        QVERIFY(receivesOnly(feature, {"shutdown restore", "reboot ", "supervisor"}));
    }

    void ownerChanges()
    {
        Feature feature;
        QVERIFY(QDBusConnection("platform").registerService(PlatformName));
        emitPlatformSignal("platform", "PowerSuspend", {"1"});
        // Handed over directly, without a moment in which nobody owns the name.
        QDBusConnectionInterface *const other = QDBusConnection("other").interface();
        QCOMPARE(
            other->registerService(PlatformName, QDBusConnectionInterface::QueueService).value(),
            QDBusConnectionInterface::ServiceQueued);
        QVERIFY(QDBusConnection("platform").unregisterService(PlatformName));
        emitPlatformSignal("platform", "PowerSuspend", {"2"});
        emitPlatformSignal("other", "PowerSuspend", {"3"});
        QVERIFY(QDBusConnection("other").unregisterService(PlatformName));
        emitPlatformSignal("other", "PowerSuspend", {"4"});
        QVERIFY(QDBusConnection("platform").registerService(PlatformName));

        QVERIFY(receivesOnly(feature, {"suspend 1", "suspend 3"}));
    }

    void loginEvents_data()
    {
        QTest::addColumn<QStringList>("signalNames");
        QTest::addColumn<QString>("kind"); // in the metadata
        QTest::addColumn<QString>("scheduledKind");
        QTest::addColumn<int>("scheduledInSeconds");
        QTest::addColumn<QString>("call");
        const auto row = [](const char *name, const QStringList &signalNames, const char *kind,
                            const char *scheduledKind, int scheduledInSeconds, const char *call) {
            QTest::newRow(name) << signalNames << kind << scheduledKind << scheduledInSeconds
                                << call;
        };
        const QStringList both {"PrepareForShutdownWithMetadata", "PrepareForShutdown"};
        row("sleep", {"PrepareForSleep"}, "", "", 0, "suspend suspend");
        row("power-off", both, "poweroff", "", 0, "shutdown shutdown");
        row("reboot", both, "reboot", "", 0, "reboot reboot");
        row("kexec", both, "kexec", "", 0, "reboot reboot");
        row("soft reboot", both, "soft-reboot", "", 0, "reboot reboot");
        row("no kind given", both, "", "", 0, "shutdown shutdown");
        // systemd before 255
        const QStringList plain {"PrepareForShutdown"};
        row("old, reboot", plain, "", "reboot", 0, "reboot reboot");
        row("old, power-off", plain, "", "poweroff", 0, "shutdown shutdown");
        row("old, reboot now due", plain, "", "reboot", -1, "reboot reboot");
        row("old, power key before a reboot", plain, "", "reboot", 3600, "shutdown shutdown");
        row("old, no schedule", plain, "", "", 0, "shutdown shutdown");
    }

    void loginEvents()
    {
        QFETCH(QStringList, signalNames);
        QFETCH(QString, kind);
        QFETCH(QString, scheduledKind);
        QFETCH(int, scheduledInSeconds);
        QFETCH(QString, call);
        LoginMock login("login");
        login.scheduledKind = scheduledKind;
        if (scheduledInSeconds != 0)
            login.scheduledTime =
                qulonglong(QDateTime::currentSecsSinceEpoch() + scheduledInSeconds) * 1000000;
        Feature feature;
        QTRY_VERIFY(login.isInhibited());
        QCOMPARE(login.inhibitions.size(), 1);
        QCOMPARE(login.inhibitions.first().value(0).toString(), QString("sleep:shutdown"));
        QCOMPARE(login.inhibitions.first().value(3).toString(), QString("delay"));
        bool inhibitedDuringCall = false;
        feature.duringCall = [&] { inhibitedDuringCall = login.isInhibited(); };
        const auto announceAll = [&](bool begins) {
            for (const QString &name : signalNames) {
                QVariantList arguments {begins};
                if (name.endsWith("Metadata"))
                    arguments << (kind.isEmpty() ? QVariantMap() : QVariantMap {{"type", kind}});
                login.announce(name, arguments);
            }
        };

        // The same thing twice, with the return from it between: it comes once each time.
        for (int round = 1; round <= 2; ++round) {
            announceAll(true);
            QTRY_VERIFY(!login.isInhibited());
            QVERIFY(inhibitedDuringCall);
            announceAll(true);
            announceAll(false);
            QTRY_VERIFY(login.isInhibited());
            QCOMPARE(login.inhibitions.size(), 1 + round);
            QCOMPARE(feature.calls.count(call), round);
            QCOMPARE(feature.calls.size(), round);
            inhibitedDuringCall = false;
        }
    }

    void loginStrangersDoNotCount()
    {
        LoginMock login("login");
        Feature feature;
        QTRY_VERIFY(login.isInhibited());

        const QDBusConnection other("other login");
        emitSignal(other, LoginPath, LoginInterface, "PrepareForSleep", {true});
        emitSignal(other, LoginPath, LoginInterface, "PrepareForShutdownWithMetadata",
                   {true, QVariantMap()});
        login.announce("PrepareForShutdownWithMetadata", {true, QVariantMap {{"type", "reboot"}}});

        QTRY_VERIFY(!login.isInhibited());
        QCOMPARE(feature.calls, QStringList("reboot reboot"));
    }

    /** It comes late, and goes away while it prepares for sleep. */
    void loginManagerRestarts()
    {
        Feature feature;
        QStringList calls;
        for (const char *connection : {"login", "other login"}) {
            LoginMock login(connection);
            QTRY_VERIFY(login.isInhibited());
            login.announce("PrepareForSleep", {true});
            calls << "suspend suspend";
            QTRY_COMPARE(feature.calls, calls);
            QTRY_VERIFY(!login.isInhibited());
        }
    }

    void inhibitorRefused()
    {
        LoginMock login("login");
        login.refuses = true;
        Feature feature;
        QByteArray logged;
        QTRY_VERIFY(!(logged += m_standardError->take()).isEmpty());
        QVERIFY2(
            logged.contains(" 2 /object the login manager will not wait at sleep and shutdown: "
                            "not today\n"),
            logged.constData());

        login.announce("PrepareForSleep", {true});
        QTRY_COMPARE(feature.calls, QStringList("suspend suspend"));
        login.refuses = false;
        login.announce("PrepareForSleep", {false});
        QTRY_VERIFY(login.isInhibited());
    }

private:
    static void emitPlatformSignal(const char *connection, const QString &name,
                                   const QVariantList &arguments)
    {
        emitSignal(QDBusConnection(connection), PlatformPath, PlatformInterface, name, arguments);
    }

    /** Whether exactly these calls come before that for an event sent now, by "platform". */
    static bool receivesOnly(const Feature &feature, QStringList calls)
    {
        emitPlatformSignal("platform", "PowerSuspend", {"mark"});
        calls << "suspend mark";
        if (!QTest::qWaitFor([&] { return feature.calls.endsWith("suspend mark"); }, 10000))
            qWarning("the last event did not come");
        if (feature.calls != calls)
            qWarning() << "expected" << calls << "received" << feature.calls;
        return feature.calls == calls;
    }

    PrivateBus m_session;
    PrivateBus m_system;
    std::unique_ptr<StandardError> m_standardError;
    std::unique_ptr<LogInterface> m_log;
};

QTEST_GUILESS_MAIN(TestFeatureBase)
#include "tst_featurebase.moc"
