// The BlueZ 4 proxies: their shape, and that their replies decode on a live bus.
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

const QString Service = QStringLiteral("org.bluez");
const QString Path = QStringLiteral("/org/bluez/1/hci0/dev_AA_BB_CC_DD_EE_FF");

// Answers every call with the arguments set, or with an error when none are.
class Answerer : public QDBusVirtualObject
{
public:
    QVariantList arguments;
    QString errorName;
    QDBusMessage lastCall;

    QString introspect(const QString &) const override { return QString(); }

    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        lastCall = message;
        return connection.send(errorName.isEmpty() ? message.createReply(arguments)
                                                   : message.createErrorReply(errorName, "no"));
    }
};

QVariant mapWithRepeatedKey()
{
    QDBusArgument argument;
    argument.beginMap(QMetaType::QString, qMetaTypeId<QDBusVariant>());
    const QList<QPair<QString, QVariant>> entries = {
        {"Trusted", true}, {"Name", "first"}, {"Name", "second"}};
    for (const QPair<QString, QVariant> &entry : entries) {
        argument.beginMapEntry();
        argument << entry.first << QDBusVariant(entry.second);
        argument.endMapEntry();
    }
    argument.endMap();
    return QVariant::fromValue(argument);
}

} // namespace

Q_DECLARE_METATYPE(const QMetaObject *)

class TestProxies : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void shape_data();
    void shape();
    void unknownServiceIsAnError();
    void serviceRecords();
    void objectPaths_data();
    void objectPaths();
    void properties();
    void repeatedKey();
    void errorReply();
    void sentArguments();
    void cleanupTestCase();

private:
    PrivateBus m_bus;
    Answerer m_answerer;
    QDBusConnection m_client = QDBusConnection(QString());
    QDBusConnection m_server = QDBusConnection(QString());
};

void TestProxies::initTestCase()
{
    m_client = m_bus.connection(QStringLiteral("client"));
    m_server = m_bus.connection(QStringLiteral("server"));
    QVERIFY(m_client.isConnected() && m_server.isConnected());
}

void TestProxies::shape_data()
{
    QTest::addColumn<const QMetaObject *>("object");
    QTest::addColumn<QString>("interface");
    QTest::addColumn<QStringList>("methods");

    const QString changed = "signal void PropertyChanged(QString name, QDBusVariant value)";
    const QString none = "slot QDBusPendingReply<> ";
    const QString path = "slot QDBusPendingReply<QDBusObjectPath> ";
    const QString paths = "slot QDBusPendingReply<QList<QDBusObjectPath> > ";
    const QString properties = "slot QDBusPendingReply<Qt_Type_dict_sv> GetProperties()";
    const QString setProperty = none + "SetProperty(QString name, QDBusVariant value)";

    QTest::newRow("Manager") << &bluezManagerProxy::staticMetaObject
                             << bluezManagerProxy::staticInterfaceName()
                             << QStringList {"signal void AdapterAdded(QDBusObjectPath adapter)",
                                             "signal void AdapterRemoved(QDBusObjectPath adapter)",
                                             "signal void DefaultAdapterChanged(QDBusObjectPath "
                                             "adapter)",
                                             changed,
                                             path + "DefaultAdapter()",
                                             path + "FindAdapter(QString pattern)",
                                             properties,
                                             paths + "ListAdapters()"};
    QTest::newRow("Adapter")
        << &bluezAdapterProxy::staticMetaObject << bluezAdapterProxy::staticInterfaceName()
        << QStringList {"signal void DeviceCreated(QDBusObjectPath device)",
                        "signal void DeviceDisappeared(QString address)",
                        "signal void DeviceFound(QString address, Qt_Type_dict_sv values)",
                        "signal void DeviceRemoved(QDBusObjectPath device)",
                        changed,
                        none + "CancelDeviceCreation(QString address)",
                        path + "CreateDevice(QString address)",
                        path
                            + "CreatePairedDevice(QString address, QDBusObjectPath agent, QString "
                              "capability)",
                        path + "FindDevice(QString address)",
                        properties,
                        paths + "ListDevices()",
                        none + "RegisterAgent(QDBusObjectPath agent, QString capability)",
                        none + "ReleaseSession()",
                        none + "RemoveDevice(QDBusObjectPath device)",
                        none + "RequestSession()",
                        setProperty,
                        none + "StartDiscovery()",
                        none + "StopDiscovery()",
                        none + "UnregisterAgent(QDBusObjectPath agent)"};
    QTest::newRow("Device") << &bluezDeviceProxy::staticMetaObject
                            << bluezDeviceProxy::staticInterfaceName()
                            << QStringList {"signal void DisconnectRequested()",
                                            changed,
                                            none + "CancelDiscovery()",
                                            none + "Disconnect()",
                                            "slot QDBusPendingReply<Qt_Type_dict_us> "
                                            "DiscoverServices(QString pattern)",
                                            properties,
                                            setProperty};
    const QStringList audio = {changed, none + "Connect()", none + "Disconnect()", properties};
    QTest::newRow("Audio") << &bluezAudioProxy::staticMetaObject
                           << bluezAudioProxy::staticInterfaceName() << audio;
    QTest::newRow("AudioSource") << &bluezAudioSourceProxy::staticMetaObject
                                 << bluezAudioSourceProxy::staticInterfaceName() << audio;
    QTest::newRow("Service") << &bluezServiceProxy::staticMetaObject
                             << bluezServiceProxy::staticInterfaceName()
                             << QStringList {
                                    "slot QDBusPendingReply<uint> AddRecord(QString record)",
                                    none + "CancelAuthorization()",
                                    none + "RemoveRecord(uint handle)",
                                    none + "RequestAuthorization(QString address, uint handle)",
                                    none + "UpdateRecord(uint handle, QString record)"};
}

void TestProxies::shape()
{
    QFETCH(const QMetaObject *, object);
    QFETCH(QString, interface);

    QCOMPARE(QString::fromLatin1(object->className()),
             "bluez" + QString(QTest::currentDataTag()) + "Proxy");
    QCOMPARE(interface, "org.bluez." + QString(QTest::currentDataTag()));
    QTEST(metaMethods(*object), "methods");
}

// Before anything else has used the type: this very call must register it, or QtDBus aborts.
void TestProxies::unknownServiceIsAnError()
{
    bluezDeviceProxy device(Service, Path, m_client);
    QVERIFY(!device.isValid());
    QDBusPendingReply<Qt_Type_dict_us> reply = device.DiscoverServices(QString());
    QTRY_VERIFY(reply.isFinished());
    QVERIFY(reply.isError());
    QCOMPARE(QMetaType::type("Qt_Type_dict_us"), qMetaTypeId<Qt_Type_dict_us>());

    QVERIFY(m_server.registerService(Service));
    QVERIFY(
        m_server.registerVirtualObject(QStringLiteral("/"), &m_answerer, QDBusConnection::SubPath));
}

void TestProxies::serviceRecords()
{
    const Qt_Type_dict_us records = {{0x10000, "headset"}, {1, ""}};
    m_answerer.arguments = {QVariant::fromValue(records)};
    bluezDeviceProxy device(Service, Path, m_client);
    QVERIFY(device.isValid());
    QDBusPendingReply<Qt_Type_dict_us> reply = device.DiscoverServices(QString());
    QTRY_VERIFY(reply.isFinished());
    QVERIFY2(!reply.isError(), qPrintable(reply.error().message()));
    QCOMPARE(reply.value(), records);
}

void TestProxies::objectPaths_data()
{
    QTest::addColumn<QStringList>("paths");

    QTest::newRow("none") << QStringList();
    QTest::newRow("order kept") << QStringList {"/b", "/a", "/c/d"};
}

void TestProxies::objectPaths()
{
    QFETCH(QStringList, paths);
    QList<QDBusObjectPath> list;
    for (const QString &path : paths)
        list << QDBusObjectPath(path);
    m_answerer.arguments = {QVariant::fromValue(list)};
    bluezAdapterProxy adapter(Service, Path, m_client);
    QDBusPendingReply<QList<QDBusObjectPath>> reply = adapter.ListDevices();
    QTRY_VERIFY(reply.isFinished());
    QVERIFY2(!reply.isError(), qPrintable(reply.error().message()));
    QCOMPARE(reply.value(), list);
}

void TestProxies::properties()
{
    m_answerer.arguments = {QVariantMap {{"Trusted", true}, {"Class", 524u}}};
    bluezDeviceProxy device(Service, Path, m_client);
    QDBusPendingReply<Qt_Type_dict_sv> reply = device.GetProperties();
    QTRY_VERIFY(reply.isFinished());
    QVERIFY2(!reply.isError(), qPrintable(reply.error().message()));
    QCOMPARE(reply.value().value("Trusted"), QVariant(true));
    QCOMPARE(reply.value().value("Class"), QVariant(524u));
}

void TestProxies::repeatedKey()
{
    m_answerer.arguments = {mapWithRepeatedKey()};
    bluezDeviceProxy device(Service, Path, m_client);
    QDBusPendingReply<Qt_Type_dict_sv> reply = device.GetProperties();
    QTRY_VERIFY(reply.isFinished());
    QVERIFY2(!reply.isError(), qPrintable(reply.error().message()));
    QCOMPARE(reply.value().count(), 3);
    QCOMPARE(reply.value().value("Name").toString(), QString("second"));
}

void TestProxies::errorReply()
{
    m_answerer.errorName = QStringLiteral("org.bluez.Error.NotConnected");
    bluezDeviceProxy device(Service, Path, m_client);
    QDBusPendingReply<> reply = device.Disconnect();
    QTRY_VERIFY(reply.isFinished());
    m_answerer.errorName.clear();
    QVERIFY(reply.isError());
    QCOMPARE(reply.error().name(), QString("org.bluez.Error.NotConnected"));
}

void TestProxies::sentArguments()
{
    m_answerer.arguments.clear();
    bluezDeviceProxy device(Service, Path, m_client);
    QDBusPendingReply<> set = device.SetProperty(QStringLiteral("Trusted"), QDBusVariant(true));
    QTRY_VERIFY(set.isFinished());
    QCOMPARE(m_answerer.lastCall.signature(), QString("sv"));
    QCOMPARE(m_answerer.lastCall.interface(), QString("org.bluez.Device"));
    QCOMPARE(m_answerer.lastCall.path(), Path);

    bluezAdapterProxy adapter(Service, Path, m_client);
    QDBusPendingReply<> removed = adapter.RemoveDevice(QDBusObjectPath(Path));
    QTRY_VERIFY(removed.isFinished());
    QCOMPARE(m_answerer.lastCall.signature(), QString("o"));
}

void TestProxies::cleanupTestCase()
{
    QDBusConnection::disconnectFromBus(QStringLiteral("client"));
    QDBusConnection::disconnectFromBus(QStringLiteral("server"));
}

QTEST_GUILESS_MAIN(TestProxies)
#include "tst_proxies.moc"
