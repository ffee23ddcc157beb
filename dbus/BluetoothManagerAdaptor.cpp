#include "BluetoothManagerAdaptor.h"

#include "BluetoothManager.h"

BluetoothManagerAdaptor::BluetoothManagerAdaptor(BluetoothManager *manager)
    : QDBusAbstractAdaptor(manager)
{
    setAutoRelaySignals(true);
}

BluetoothManager *BluetoothManagerAdaptor::manager() const
{
    return static_cast<BluetoothManager *>(parent());
}

int BluetoothManagerAdaptor::DisconnectDevice()
{
    return manager()->DisconnectDevice();
}

int BluetoothManagerAdaptor::GetStatus(bool &Enable, bool &On, QString &pid)
{
    return manager()->GetStatus(Enable, On, pid);
}

int BluetoothManagerAdaptor::RemoveAllDevices()
{
    return manager()->RemoveAllDevices();
}

int BluetoothManagerAdaptor::RemoveDevice(const QString &Device)
{
    return manager()->RemoveDevice(Device);
}

int BluetoothManagerAdaptor::SetEnabled(bool Enable)
{
    return manager()->SetEnabled(Enable);
}

int BluetoothManagerAdaptor::SetMute(int Enable)
{
    return manager()->SetMute(Enable);
}

int BluetoothManagerAdaptor::SetPid(const QString &Pid)
{
    return manager()->SetPid(Pid);
}

int BluetoothManagerAdaptor::SetVolume(int Enable)
{
    return manager()->SetVolume(Enable);
}
