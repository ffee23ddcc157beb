// The exported interface: the adaptor and the installed description say the same, and the order of
// the meta-objects is what the bus and the platform's dispatch rely on.
#include <QtTest>

#include "BluetoothManager.h"
#include "BluetoothManagerAdaptor.h"
#include "LogInterface.h"
#include "MetaMethods.h"

LogInterface *_logInterface = nullptr;

class TestInterface : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void introspectionIsTheInstalledDescription();
    void members();
};

void TestInterface::introspectionIsTheInstalledDescription()
{
    const QString description = linesOf(DESCRIPTION).join('\n');
    const QMetaObject &adaptor = BluetoothManagerAdaptor::staticMetaObject;
    const QMetaClassInfo text = adaptor.classInfo(adaptor.indexOfClassInfo("D-Bus Introspection"));
    QCOMPARE("<node>\n" + QString::fromUtf8(text.value()) + "</node>",
             description.mid(description.indexOf("<node>")));
    const QMetaClassInfo name = adaptor.classInfo(adaptor.indexOfClassInfo("D-Bus Interface"));
    QCOMPARE(name.value(), "com.orbitalis.ulmo.bluetoothinterface");
}

void TestInterface::members()
{
    const QStringList members = QStringList {"BluetoothManagerAdaptor"}
        + metaMethods(BluetoothManagerAdaptor::staticMetaObject)
        + QStringList {"", "BluetoothManager"} + metaMethods(BluetoothManager::staticMetaObject);
    QCOMPARE(members, linesOf(MEMBERS));
}

QTEST_GUILESS_MAIN(TestInterface)
#include "tst_interface.moc"
