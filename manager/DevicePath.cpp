#include "DevicePath.h"

namespace DevicePath {

QString ofAddress(const QString &adapterPath, const QString &address)
{
    QString underscored = address;
    underscored.replace(QLatin1Char(':'), QLatin1Char('_'));
    return adapterPath + QLatin1String("/dev_") + underscored;
}

QString adapterOf(const QString &devicePath)
{
    return devicePath.section(QLatin1Char('/'), 0, -2);
}

QString pulseAudioSource(const QString &devicePath)
{
    const QString device = devicePath.section(QLatin1Char('/'), -1);
    return QLatin1String("bluez_source.") + device.section(QLatin1Char('_'), 1);
}

} // namespace DevicePath
