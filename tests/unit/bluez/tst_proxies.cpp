// The BlueZ 4 proxies: their shape, and that replies decode which no scenario asks for.
#include <QtTest>

#include <QtDBus/QDBusMessage>
#include <QtDBus/QDBusVirtualObject>

#include "MetaMethods.h"
#include "PrivateBus.h"
#include "bluezAdapterProxy.h"
#include "bluezAudioProxy.h"
#include "bluezAudioSourceProxy.h"
#include "bluezDeviceProxy.h"
#include "bluezManagerProxy.h"
#include "bluezServiceProxy.h"

namespace {

const char Service[] = "org.bluez";
const char Path[] = "/org/bluez/1/hci0/dev_AA_BB_CC_DD_EE_FF";

// Answers every call with the same.
class Answerer : public QDBusVirtualObject
{
public:
    QVariant answer;

    QString introspect(const QString &) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        return connection.send(message.createReply(answer));
    }
};

template<class Proxy>
QStringList shape()
{
    const QMetaObject &object = Proxy::staticMetaObject;
    return QStringList {QString(object.className()) + ' ' + Proxy::staticInterfaceName()}
    + metaMethods(object) + QStringList {QString()};
}

} // namespace

class TestProxies : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void shapes();
    void unregisteredType();
    void repeatedKey();

private:
    PrivateBus m_bus;
};

void TestProxies::shapes()
{
    QStringList shapes = shape<bluezManagerProxy>() + shape<bluezAdapterProxy>()
        + shape<bluezDeviceProxy>() + shape<bluezAudioProxy>() + shape<bluezAudioSourceProxy>()
        + shape<bluezServiceProxy>();
    shapes.removeLast();
    QCOMPARE(shapes, linesOf(SHAPES));
}

// Before anything else has used the type: this very call must register it, or QtDBus aborts.
void TestProxies::unregisteredType()
{
    bluezDeviceProxy device(Service, Path, m_bus.connection("client"));
    QDBusPendingReply<Qt_Type_dict_us> reply = device.DiscoverServices(QString());
    QTRY_VERIFY(reply.isFinished());
    QVERIFY(reply.isError());
    QCOMPARE(QMetaType::type("Qt_Type_dict_us"), qMetaTypeId<Qt_Type_dict_us>());

    QDBusConnection server = m_bus.connection("server");
    Answerer answerer;
    const Qt_Type_dict_us records {{0x10000, "headset"}, {1, ""}};
    answerer.answer = QVariant::fromValue(records);
    QVERIFY(server.registerVirtualObject(Path, &answerer));
    QVERIFY(server.registerService(Service));
    reply = device.DiscoverServices(QString());
    QTRY_VERIFY(reply.isFinished());
    QVERIFY2(!reply.isError(), qPrintable(reply.error().message()));
    QCOMPARE(reply.value(), records);
}

void TestProxies::repeatedKey()
{
    QDBusConnection server("server");
    Answerer answerer;
    answerer.answer =
        QVariantMap(QMultiMap<QString, QVariant> {{"Name", "second"}, {"Name", "first"}});
    QVERIFY(server.registerVirtualObject(Path, &answerer));
    bluezDeviceProxy device(Service, Path, QDBusConnection("client"));
    QDBusPendingReply<Qt_Type_dict_sv> reply = device.GetProperties();
    QTRY_VERIFY(reply.isFinished());
    QVERIFY2(!reply.isError(), qPrintable(reply.error().message()));
    QCOMPARE(reply.value().values("Name"), (QVariantList {"second", "first"}));
}

QTEST_GUILESS_MAIN(TestProxies)
#include "tst_proxies.moc"
