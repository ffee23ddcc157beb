#include "Settings.h"

#include <QtCore/QRegExp>

#include "Configuration.h"

namespace {

const char General[] = "GENERAL";

QString readText(Configuration &configuration, const char *section, const char *key,
                 const char *defaultValue)
{
    return configuration.ReadConfigValue(section, key, QString(defaultValue), nullptr, true);
}

} // namespace

bool isValidPid(const QString &pid)
{
    if (pid.length() != 4)
        return false;
    for (int i = 0; i < pid.length(); ++i) {
        if (!pid.at(i).isDigit())
            return false;
    }
    return true;
}

namespace Settings {

int readInteger(Configuration &configuration, const char *key, int defaultValue)
{
    return configuration.ReadConfigValue(Bluetooth, key, defaultValue, nullptr, true);
}

QString readPid(Configuration &configuration)
{
    return readText(configuration, Bluetooth, "bt-pid", DefaultPid);
}

int readLegacyMode(Configuration &configuration, const QString &pid)
{
    return pid == DefaultPid && readInteger(configuration, "bt-disable-legacy", 0) > 0;
}

QString readBluetoothName(Configuration &configuration)
{
    QString name = readText(configuration, General, "Nickname", "");
    if (name.isEmpty())
        name = "Ulmo_" + readText(configuration, General, "SerialNumber", "unknown");
    return bluetoothName(name);
}

QString bluetoothName(const QString &name)
{
    QString result = name;
    return result.replace(' ', '_').remove(QRegExp("[^a-zA-Z0-9_]"));
}

} // namespace Settings
