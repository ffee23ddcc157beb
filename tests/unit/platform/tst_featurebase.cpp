// Power and supervisor events: from the product's platform on the session bus and from the login
// manager on the system bus.
#include "LogInterface.h"
#include "PrivateBus.h"
#include "StandardError.h"
#include "UlmoFeatureBase.h"

#include <QDBusConnectionInterface>
#include <QDBusMetaType>
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

/** What the login manager answers when it is asked for its scheduled shutdown. */
struct Schedule
{
    QString kind;
    qulonglong time = 0;
};

QDBusArgument &operator<<(QDBusArgument &argument, const Schedule &schedule)
{
    argument.beginStructure();
    argument << schedule.kind << schedule.time;
    argument.endStructure();
    return argument;
}

const QDBusArgument &operator>>(const QDBusArgument &argument, Schedule &schedule)
{
    argument.beginStructure();
    argument >> schedule.kind >> schedule.time;
    argument.endStructure();
    return argument;
}

/** A login manager on the system bus. */
class LoginMock : public QDBusVirtualObject
{
public:
    explicit LoginMock(const QDBusConnection &connection) : m_connection(connection)
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
        if (message.member() == "Get" && schedule && message.arguments().value(0) == LoginInterface
            && message.arguments().value(1) == "ScheduledShutdown")
            return connection.send(message.createReply(
                QVariant::fromValue(QDBusVariant(QVariant::fromValue(*schedule)))));
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

    /** Whether the other end of the last inhibitor given out is open somewhere. */
    bool isInhibited() const
    {
        struct pollfd inhibitor = {m_inhibitor, 0, 0};
        return m_inhibitor >= 0 && poll(&inhibitor, 1, 0) == 0;
    }

    std::unique_ptr<Schedule> schedule;
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

void emitLoginSignal(const QDBusConnection &connection, const QString &name,
                     const QVariantList &arguments)
{
    QDBusMessage signal = QDBusMessage::createSignal(LoginPath, LoginInterface, name);
    signal.setArguments(arguments);
    connection.send(signal);
}
} // namespace

Q_DECLARE_METATYPE(Schedule)
Q_DECLARE_METATYPE(QList<QStringList>)

class TestFeatureBase : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        qDBusRegisterMetaType<Schedule>();
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

    void platformEvents_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QVariantList>("arguments");
        QTest::addColumn<QString>("call");

        QTest::newRow("suspend") << "PowerSuspend" << QVariantList {"lid"} << "suspend lid";
        QTest::newRow("shutdown") << "PowerShutdown" << QVariantList {"restore"}
                                  << "shutdown restore";
        QTest::newRow("reboot") << "PowerReboot" << QVariantList {""} << "reboot ";
        QTest::newRow("supervisor") << "SupervisorShutdown" << QVariantList() << "supervisor";
        QTest::newRow("without reason") << "PowerSuspend" << QVariantList() << QString();
        QTest::newRow("reason of another type") << "PowerReboot" << QVariantList {1} << QString();
        QTest::newRow("unknown event") << "PowerNap" << QVariantList {"x"} << QString();
    }

    void platformEvents()
    {
        QFETCH(QString, name);
        QFETCH(QVariantList, arguments);
        QFETCH(QString, call);
        QVERIFY(QDBusConnection("platform").registerService(PlatformName));
        Feature feature;
        QVERIFY(feature.isInitialized());

        emitPlatformSignal("platform", name, arguments);

        QVERIFY(receivesOnly(feature, call.isEmpty() ? QStringList() : QStringList(call)));
    }

    void strangersDoNotCount()
    {
        Feature feature;
        emitPlatformSignal("other", "PowerShutdown", {"nobody owns the name"});
        QVERIFY(QDBusConnection("platform").registerService(PlatformName));
        emitPlatformSignal("other", "PowerShutdown", {"broadcast"});
        QDBusMessage unicast = QDBusMessage::createTargetedSignal(
            QDBusConnection::sessionBus().baseService(), PlatformPath, PlatformInterface,
            "SupervisorShutdown");
        QDBusConnection("other").send(unicast);
        settle(QDBusConnection("other"));

        QVERIFY(receivesOnly(feature, {}));
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
        QTest::addColumn<QString>("metadataKind");
        QTest::addColumn<QString>("scheduledKind");
        QTest::addColumn<int>("scheduledInSeconds");
        QTest::addColumn<QString>("call");

        const QStringList sleep {"PrepareForSleep"};
        const QStringList plain {"PrepareForShutdown"};
        const QStringList both {"PrepareForShutdownWithMetadata", "PrepareForShutdown"};
        QTest::newRow("sleep") << sleep << ""
                               << "" << 0 << "suspend suspend";
        QTest::newRow("power-off") << both << "poweroff"
                                   << "" << 0 << "shutdown shutdown";
        QTest::newRow("halt") << both << "halt"
                              << "" << 0 << "shutdown shutdown";
        QTest::newRow("reboot") << both << "reboot"
                                << "" << 0 << "reboot reboot";
        QTest::newRow("kexec") << both << "kexec"
                               << "" << 0 << "reboot reboot";
        QTest::newRow("soft reboot") << both << "soft-reboot"
                                     << "" << 0 << "reboot reboot";
        QTest::newRow("no kind given") << both << ""
                                       << "" << 0 << "shutdown shutdown";
        QTest::newRow("systemd before 255: reboot") << plain << ""
                                                    << "reboot" << 0 << "reboot reboot";
        QTest::newRow("systemd before 255: power-off") << plain << ""
                                                       << "poweroff" << 0 << "shutdown shutdown";
        QTest::newRow("systemd before 255: reboot now due") << plain << ""
                                                            << "reboot" << -1 << "reboot reboot";
        QTest::newRow("systemd before 255: power key before a scheduled reboot")
            << plain << ""
            << "reboot" << 3600 << "shutdown shutdown";
        QTest::newRow("systemd before 255: no schedule") << plain << ""
                                                         << "" << 0 << "shutdown shutdown";
    }

    void loginEvents()
    {
        QFETCH(QStringList, signalNames);
        QFETCH(QString, metadataKind);
        QFETCH(QString, scheduledKind);
        QFETCH(int, scheduledInSeconds);
        QFETCH(QString, call);
        LoginMock login(QDBusConnection("login"));
        if (!scheduledKind.isEmpty()) {
            login.schedule.reset(new Schedule {scheduledKind, 0});
            if (scheduledInSeconds)
                login.schedule->time = qulonglong(QDateTime::currentMSecsSinceEpoch()
                                                  + qint64(scheduledInSeconds) * 1000)
                    * 1000;
        }
        Feature feature;
        QTRY_VERIFY(login.isInhibited());
        QCOMPARE(login.inhibitions.size(), 1);
        QCOMPARE(login.inhibitions.first().value(0).toString(), QString("sleep:shutdown"));
        QCOMPARE(login.inhibitions.first().value(3).toString(), QString("delay"));
        bool inhibitedDuringCall = false;
        feature.duringCall = [&] { inhibitedDuringCall = login.isInhibited(); };

        // The same thing twice, with the return from it between: it comes once each time.
        for (int round = 1; round <= 2; ++round) {
            const auto emitAll = [&](bool begins) {
                for (const QString &name : signalNames) {
                    QVariantList arguments {begins};
                    if (name.endsWith("Metadata"))
                        arguments << (metadataKind.isEmpty()
                                          ? QVariantMap()
                                          : QVariantMap {{"type", metadataKind}});
                    emitLoginSignal(QDBusConnection("login"), name, arguments);
                }
            };
            emitAll(true);
            QTRY_VERIFY(!login.isInhibited());
            QVERIFY(inhibitedDuringCall);
            emitAll(true);
            emitAll(false);
            QTRY_VERIFY(login.isInhibited());
            QCOMPARE(login.inhibitions.size(), 1 + round);
            QCOMPARE(feature.calls.count(call), round);
            QCOMPARE(feature.calls.size(), round);
            inhibitedDuringCall = false;
        }
    }

    void loginStrangersDoNotCount()
    {
        LoginMock login(QDBusConnection("login"));
        Feature feature;
        QTRY_VERIFY(login.isInhibited());

        emitLoginSignal(QDBusConnection("other login"), "PrepareForSleep", {true});
        emitLoginSignal(QDBusConnection("other login"), "PrepareForShutdownWithMetadata",
                        {true, QVariantMap()});
        settle(QDBusConnection("other login"));
        emitLoginSignal(QDBusConnection("login"), "PrepareForShutdownWithMetadata",
                        {true, QVariantMap {{"type", "reboot"}}});

        QTRY_VERIFY(!login.isInhibited());
        QCOMPARE(feature.calls, QStringList("reboot reboot"));
    }

    /** It comes late, and goes away while it prepares for sleep. */
    void loginManagerRestarts()
    {
        Feature feature;
        QVERIFY(feature.isInitialized());
        {
            LoginMock login(QDBusConnection("login"));
            QTRY_VERIFY(login.isInhibited());
            emitLoginSignal(QDBusConnection("login"), "PrepareForSleep", {true});
            QTRY_COMPARE(feature.calls, QStringList("suspend suspend"));
        }
        LoginMock login(QDBusConnection("other login"));
        QTRY_VERIFY(login.isInhibited());
        emitLoginSignal(QDBusConnection("other login"), "PrepareForSleep", {true});
        QTRY_COMPARE(feature.calls, (QStringList {"suspend suspend", "suspend suspend"}));
        QTRY_VERIFY(!login.isInhibited());
    }

    void inhibitorRefused()
    {
        LoginMock login(QDBusConnection("login"));
        login.refuses = true;
        Feature feature;
        QByteArray logged;
        QTRY_VERIFY(!(logged += m_standardError->take()).isEmpty());
        QVERIFY2(
            logged.contains(" 2 /object the login manager will not wait at sleep and shutdown: "
                            "not today\n"),
            logged.constData());

        emitLoginSignal(QDBusConnection("login"), "PrepareForSleep", {true});
        QTRY_COMPARE(feature.calls, QStringList("suspend suspend"));
        login.refuses = false;
        emitLoginSignal(QDBusConnection("login"), "PrepareForSleep", {false});
        QTRY_VERIFY(login.isInhibited());
    }

private:
    static void emitPlatformSignal(const char *connection, const QString &name,
                                   const QVariantList &arguments)
    {
        QDBusMessage signal = QDBusMessage::createSignal(PlatformPath, PlatformInterface, name);
        signal.setArguments(arguments);
        QDBusConnection(connection).send(signal);
        settle(QDBusConnection(connection));
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
