// Power events from the login manager. Those of the product's platform are told in stories.
#include <QtTest>

#include <QDBusConnectionInterface>
#include <QDBusUnixFileDescriptor>
#include <QDBusVirtualObject>

#include <functional>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "LogInterface.h"
#include "UlmoFeatureBase.h"

LogInterface *_logInterface = nullptr;

namespace {

const char LoginName[] = "org.freedesktop.login1";

/** Returns when the bus has handled all that the connection has sent. */
void settle(const QDBusConnection &connection)
{
    QVERIFY(connection.interface()->isServiceRegistered("org.freedesktop.DBus"));
}

void emitSignal(const char *sender, const QString &name, const QVariantList &arguments)
{
    QDBusMessage signal = QDBusMessage::createSignal("/org/freedesktop/login1",
                                                     "org.freedesktop.login1.Manager", name);
    signal.setArguments(arguments);
    QDBusConnection(sender).send(signal);
    settle(QDBusConnection(sender));
}

class Feature : public UlmoFeatureBase
{
public:
    Feature() : UlmoFeatureBase("/object") { settle(QDBusConnection::systemBus()); }

    void ulmoPowerOnReboot(const QString &reason) override { called("reboot " + reason); }
    void ulmoPowerOnShutdown(const QString &reason) override { called("shutdown " + reason); }
    void ulmoPowerOnSuspend(const QString &reason) override { called("suspend " + reason); }

    QStringList calls;
    std::function<void()> duringCall = [] {};

private:
    void called(const QString &call)
    {
        calls << call;
        duringCall();
    }
};

class LoginManager : public QDBusVirtualObject
{
public:
    explicit LoginManager(const char *connection) : m_connection(connection)
    {
        m_connection.registerVirtualObject("/org/freedesktop/login1", this);
        m_connection.registerService(LoginName);
    }

    ~LoginManager()
    {
        m_connection.unregisterService(LoginName);
        close(m_inhibitor);
    }

    QString introspect(const QString &) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.member() == "Get" && !scheduledKind.isEmpty()) {
            QDBusArgument schedule;
            schedule.beginStructure();
            schedule << scheduledKind << scheduledTime;
            schedule.endStructure();
            return connection.send(message.createReply(
                QVariant::fromValue(QDBusVariant(QVariant::fromValue(schedule)))));
        }
        if (message.arguments().value(0) != "sleep:shutdown" || refusals-- > 0)
            return connection.send(message.createErrorReply("x.Refused", "not today"));
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            qFatal("no pipe");
        close(m_inhibitor);
        m_inhibitor = ends[0];
        QDBusUnixFileDescriptor given;
        given.giveFileDescriptor(ends[1]);
        return connection.send(message.createReply(QVariant::fromValue(given)));
    }

    /** Whether the other end of the last inhibitor given out is open somewhere. */
    bool isInhibited() const
    {
        pollfd inhibitor {m_inhibitor, 0, 0};
        return m_inhibitor >= 0 && poll(&inhibitor, 1, 0) == 0;
    }

    QString scheduledKind;
    qulonglong scheduledTime = 0; // microseconds since 1970, 0 for at once
    int refusals = 0;

private:
    QDBusConnection m_connection;
    int m_inhibitor = -1;
};

} // namespace

class TestEvents : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        _logInterface = new LogInterface("/log");
        for (const char *name : {"login", "other login"})
            QVERIFY(QDBusConnection::connectToBus(QDBusConnection::SystemBus, name).isConnected());
    }

    void login_data()
    {
        QTest::addColumn<QString>("kind"); // in the metadata, which systemd has from 255 on
        QTest::addColumn<QString>("scheduledKind");
        QTest::addColumn<int>("scheduledIn"); // seconds
        QTest::addColumn<QString>("call");
        const auto row = [](const char *name, const char *kind, const char *scheduledKind,
                            int scheduledIn, const char *call) {
            QTest::newRow(name) << QString(kind) << QString(scheduledKind) << scheduledIn
                                << QString(call);
        };
        row("power-off", "poweroff", "", 0, "shutdown shutdown");
        row("reboot", "reboot", "", 0, "reboot reboot");
        row("kexec", "kexec", "", 0, "reboot reboot");
        row("soft reboot", "soft-reboot", "", 0, "reboot reboot");
        row("old, reboot", "", "reboot", 0, "reboot reboot");
        row("old, reboot now due", "", "reboot", -1, "reboot reboot");
        row("old, power key before a reboot", "", "reboot", 3600, "shutdown shutdown");
        row("old, no schedule", "", "", 0, "shutdown shutdown");
        row("sleep", "", "", 0, "suspend suspend");
    }

    void login()
    {
        QFETCH(QString, kind);
        QFETCH(QString, scheduledKind);
        QFETCH(int, scheduledIn);
        QFETCH(QString, call);
        LoginManager login("login");
        login.scheduledKind = scheduledKind;
        if (scheduledIn != 0)
            login.scheduledTime = (QDateTime::currentSecsSinceEpoch() + scheduledIn) * 1000000;
        Feature feature;
        const QString name = call.startsWith("suspend") ? "PrepareForSleep" : "PrepareForShutdown";
        const auto announce = [&](bool begins) {
            if (!kind.isEmpty())
                emitSignal("login", name + "WithMetadata", {begins, QVariantMap {{"type", kind}}});
            emitSignal("login", name, {begins});
        };
        feature.duringCall = [&] { QVERIFY(login.isInhibited()); };
        // The same thing twice, with the return from it between: it comes once each time.
        for (int round = 1; round <= 2; ++round) {
            QTRY_VERIFY(login.isInhibited());
            emitSignal("other login", name, {true}); // a stranger
            emitSignal("other login", name + "WithMetadata", {true, QVariantMap()});
            announce(true);
            QTRY_VERIFY(!login.isInhibited());
            QCOMPARE(feature.calls.size(), round);
            announce(true);
            announce(false);
        }
        QTRY_VERIFY(login.isInhibited());
        QCOMPARE(feature.calls, QStringList({call, call}));
    }

    /// It goes away while it prepares for sleep, and the next one refuses at first.
    void loginManagerRestarts()
    {
        Feature feature;
        {
            LoginManager login("login");
            QTRY_VERIFY(login.isInhibited());
            emitSignal("login", "PrepareForSleep", {true});
            QTRY_COMPARE(feature.calls.size(), 1);
        }
        LoginManager login("other login");
        login.refusals = 1;
        QTRY_COMPARE(login.refusals, 0);
        emitSignal("other login", "PrepareForSleep", {true});
        QTRY_COMPARE(feature.calls.size(), 2);
        emitSignal("other login", "PrepareForSleep", {false});
        QTRY_VERIFY(login.isInhibited());
    }
};

QTEST_GUILESS_MAIN(TestEvents)
#include "tst_events.moc"
