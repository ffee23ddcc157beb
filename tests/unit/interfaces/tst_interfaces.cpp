// The classes whose meta-objects are a contract: their signals and slots, in this order.
#include <QtTest>

#include "BluetoothManager.h"
#include "BluetoothManagerAdaptor.h"
#include "LogInterface.h"
#include "bluezAdapterProxy.h"
#include "bluezAudioProxy.h"
#include "bluezAudioSourceProxy.h"
#include "bluezDeviceProxy.h"
#include "bluezManagerProxy.h"
#include "bluezServiceProxy.h"

LogInterface *_logInterface = nullptr;

static QString members(const QMetaObject &object)
{
    QStringList names;
    for (int i = object.methodOffset(); i < object.methodCount(); ++i)
        names << object.method(i).name();
    return names.join(' ');
}

class TestInterfaces : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void proxies()
    {
        QCOMPARE(members(bluezManagerProxy::staticMetaObject),
                 "AdapterAdded AdapterRemoved DefaultAdapterChanged PropertyChanged "
                 "DefaultAdapter FindAdapter GetProperties ListAdapters");
        QCOMPARE(members(bluezAdapterProxy::staticMetaObject),
                 "DeviceCreated DeviceDisappeared DeviceFound DeviceRemoved PropertyChanged "
                 "CancelDeviceCreation CreateDevice CreatePairedDevice FindDevice GetProperties "
                 "ListDevices RegisterAgent ReleaseSession RemoveDevice RequestSession SetProperty "
                 "StartDiscovery StopDiscovery UnregisterAgent");
        QCOMPARE(members(bluezDeviceProxy::staticMetaObject),
                 "DisconnectRequested PropertyChanged "
                 "CancelDiscovery Disconnect DiscoverServices GetProperties SetProperty");
        QCOMPARE(members(bluezAudioProxy::staticMetaObject),
                 "PropertyChanged Connect Disconnect GetProperties");
        QCOMPARE(members(bluezAudioSourceProxy::staticMetaObject),
                 "PropertyChanged Connect Disconnect GetProperties");
        QCOMPARE(members(bluezServiceProxy::staticMetaObject),
                 "AddRecord CancelAuthorization RemoveRecord RequestAuthorization UpdateRecord");
    }

    void service()
    {
        QCOMPARE(members(BluetoothManagerAdaptor::staticMetaObject),
                 "BluetoothOn BluetoothPidChanged ConnectAudioDevice DisconnectAudioDevice "
                 "NoPlayConnectedDevive DisconnectDevice GetStatus RemoveAllDevices RemoveDevice "
                 "SetEnabled SetMute SetPid SetVolume");
        QCOMPARE(members(BluetoothManager::staticMetaObject),
                 "BluetoothOn ConnectAudioDevice DisconnectAudioDevice NoPlayConnectedDevive "
                 "BluetoothPidChanged SetPid SetEnabled GetStatus SetVolume SetMute "
                 "DisconnectDevice RemoveAllDevices RemoveDevice serviceBluezRegistered "
                 "serviceBluezUnregistered bluezDown bluezRestart agentDown pulseaudioDown "
                 "timeoutStartBluez restartAgent Enable startPulseAudio_step1 "
                 "startPulseAudio_step2 AudioSourcePropertyChanged DevicePropertyChanged "
                 "reconnect noPlay callFinishedStartPlayer callFinishedStopPlayer");
    }
};

QTEST_GUILESS_MAIN(TestInterfaces)
#include "tst_interfaces.moc"
