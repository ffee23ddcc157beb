// Calls to the sound manager, whatever its interface is called. What comes of its answers is shown
// by the scenarios.
#include "LogInterface.h"
#include "PrivateBus.h"
#include "SoundManagerProxy.h"

#include <QDBusVirtualObject>
#include <QtTest>

LogInterface *_logInterface = nullptr;

namespace {
const char Service[] = "com.orbitalis.ulmo.soundmanager";
const char Path[] = "/com/orbitalis/ulmo/soundmanager/soundobj";

/** Answers 7 and keeps what it was asked. */
class SoundManager : public QDBusVirtualObject
{
public:
    QString introspect(const QString &) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        calls << QVariantList {message.interface(), message.member()} + message.arguments();
        return connection.send(message.createReply(7));
    }

    QList<QVariantList> calls;
};
} // namespace

class TestSoundManagerProxy : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void calls()
    {
        PrivateBus bus;
        SoundManager soundManager;
        QDBusConnection server = bus.connection("sound manager");
        QVERIFY(server.registerVirtualObject(Path, &soundManager));
        QVERIFY(server.registerService(Service));
        QDBusPendingReply<int> play;
        QDBusPendingReply<int> stop;
        { // They outlive the proxy.
            SoundManagerProxy proxy(Service, Path, bus.connection("client"));
            QVERIFY(proxy.isValid());
            play = proxy.PlayBluetooth();
            stop = proxy.StopPlay("bluetooth", QString());
        }
        QTRY_VERIFY(play.isFinished() && stop.isFinished());

        QCOMPARE(play.value(), 7);
        QCOMPARE(stop.value(), 7);
        const QList<QVariantList> expected {{"", "PlayBluetooth"},
                                            {"", "StopPlay", "bluetooth", ""}};
        QCOMPARE(soundManager.calls, expected);
    }

    void notConnected()
    {
        SoundManagerProxy proxy(Service, Path, QDBusConnection("no such connection"));
        QVERIFY(!proxy.isValid());
        QVERIFY(proxy.StopPlay("bluetooth", QString()).isError());
    }
};

QTEST_GUILESS_MAIN(TestSoundManagerProxy)
#include "tst_soundmanagerproxy.moc"
