// Calls to the sound manager: whatever its interface is called, whether it answers or not.
#include "LogInterface.h"
#include "PrivateBus.h"
#include "SoundManagerProxy.h"

#include <QDBusPendingCallWatcher>
#include <QDBusVirtualObject>
#include <QtTest>

LogInterface *_logInterface = nullptr;

namespace {
const char Service[] = "com.orbitalis.ulmo.soundmanager";
const char Path[] = "/com/orbitalis/ulmo/soundmanager/soundobj";

/** Answers 7, or an error when told to; keeps what it was asked. */
class SoundManager : public QDBusVirtualObject
{
public:
    QString introspect(const QString &) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        calls << QStringList {message.interface(), message.member(), message.signature()};
        for (const QVariant &argument : message.arguments())
            calls.last() << argument.toString();
        return connection.send(refuses ? message.createErrorReply("x.Refused", "no")
                                       : message.createReply(7));
    }

    QList<QStringList> calls;
    bool refuses = false;
};

/** An object with an interface of its own. */
class NamedSoundManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.example.AnyName")

public Q_SLOTS:
    int PlayBluetooth() { return 8; }
    int StopPlay(const QString &source, const QString &target)
    {
        return source == "bluetooth" && target.isEmpty() ? 9 : -1;
    }
};
} // namespace

class TestSoundManagerProxy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(qputenv("DBUS_SESSION_BUS_ADDRESS", m_bus.address().toLatin1()));
        QVERIFY(m_bus.connection("sound manager").isConnected());
    }

    void cleanup()
    {
        QDBusConnection bus("sound manager");
        bus.unregisterObject(Path);
        bus.unregisterService(Service);
    }

    void absent()
    {
        SoundManagerProxy proxy(Service, Path, QDBusConnection::sessionBus());
        QVERIFY(!proxy.isValid());
        QVERIFY(waitFor(proxy.PlayBluetooth()).isError());
    }

    void notConnected()
    {
        SoundManagerProxy proxy(Service, Path, QDBusConnection("no such connection"));
        QVERIFY(!proxy.isValid());
        QVERIFY(proxy.StopPlay("bluetooth", QString()).isError());
    }

    void namesNoInterface()
    {
        SoundManager soundManager;
        QDBusConnection bus("sound manager");
        QVERIFY(bus.registerVirtualObject(Path, &soundManager));
        QVERIFY(bus.registerService(Service));

        QCOMPARE(waitFor(proxyCall(&SoundManagerProxy::PlayBluetooth)).value(), 7);
        SoundManagerProxy proxy(Service, Path, QDBusConnection::sessionBus());
        QCOMPARE(waitFor(proxy.StopPlay("bluetooth", "")).value(), 7);
        QCOMPARE(soundManager.calls,
                 (QList<QStringList> {{"", "PlayBluetooth", ""},
                                      {"", "StopPlay", "ss", "bluetooth", ""}}));

        soundManager.refuses = true;
        const QDBusPendingReply<int> refused =
            waitFor(proxyCall(&SoundManagerProxy::PlayBluetooth));
        QVERIFY(refused.isError());
        QCOMPARE(refused.error().name(), QString("x.Refused"));
    }

    void anyInterface()
    {
        NamedSoundManager soundManager;
        QDBusConnection bus("sound manager");
        QVERIFY(bus.registerObject(Path, &soundManager, QDBusConnection::ExportAllSlots));
        QVERIFY(bus.registerService(Service));

        QCOMPARE(waitFor(proxyCall(&SoundManagerProxy::PlayBluetooth)).value(), 8);
        SoundManagerProxy proxy(Service, Path, QDBusConnection::sessionBus());
        QCOMPARE(waitFor(proxy.StopPlay("bluetooth", "")).value(), 9);
    }

private:
    /** Makes the call with a proxy that is gone when the answer comes. */
    static QDBusPendingReply<int> proxyCall(QDBusPendingReply<int> (SoundManagerProxy::*method)())
    {
        SoundManagerProxy proxy(Service, Path, QDBusConnection::sessionBus());
        if (!proxy.isValid())
            qWarning("the proxy is not valid");
        return (proxy.*method)();
    }

    static QDBusPendingReply<int> waitFor(const QDBusPendingReply<int> &reply)
    {
        QDBusPendingCallWatcher watcher(reply);
        QSignalSpy finished(&watcher, SIGNAL(finished(QDBusPendingCallWatcher *)));
        if (!finished.wait(10000))
            qWarning("no answer");
        return reply;
    }

    PrivateBus m_bus;
};

QTEST_GUILESS_MAIN(TestSoundManagerProxy)
#include "tst_soundmanagerproxy.moc"
