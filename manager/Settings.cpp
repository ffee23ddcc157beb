#include "Settings.h"

#include <QtCore/QRegExp>

#include "Configuration.h"
#include "PairingPin.h"

namespace Settings {

int readLegacyMode(Configuration &configuration, const QString &pid)
{
    if (pid != DefaultPid)
        return 0;
    return configuration.ReadConfigValue(Bluetooth, "bt-disable-legacy", 0, nullptr, true) > 0;
}

QString readBluetoothName(Configuration &configuration)
{
    const QString nickname =
        configuration.ReadConfigValue(General, "Nickname", QString(), nullptr, true);
    if (!nickname.isEmpty())
        return bluetoothName(nickname);
    return bluetoothName(
        "Ulmo_" + configuration.ReadConfigValue(General, "SerialNumber", "unknown", nullptr, true));
}

QString bluetoothName(const QString &name)
{
    QString result = name;
    return result.replace(' ', '_').remove(QRegExp("[^a-zA-Z0-9_]"));
}

} // namespace Settings
