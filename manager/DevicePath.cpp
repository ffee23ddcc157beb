#include "DevicePath.h"

#include <QtCore/QRegExp>

namespace DevicePath {

QString ofAddress(const QString &adapterPath, const QString &address)
{
    QString underscored = address;
    underscored.replace(':', '_');
    return adapterPath + "/dev_" + underscored;
}

bool isValid(const QString &devicePath)
{
    return QRegExp("(/[A-Za-z0-9_]+)+").exactMatch(devicePath);
}

QString adapterOf(const QString &devicePath)
{
    return devicePath.section('/', 0, -2);
}

QString pulseAudioSource(const QString &devicePath)
{
    const QString device = devicePath.section('/', -1);
    return "bluez_source." + device.section('_', 1);
}

} // namespace DevicePath
