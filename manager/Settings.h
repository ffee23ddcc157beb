// What is derived from the settings in the product's configuration store.
#ifndef SETTINGS_H
#define SETTINGS_H

#include <QtCore/QString>

class Configuration;

namespace Settings {

const char Bluetooth[] = "BLUETOOTH";
const char General[] = "GENERAL";

/** Secure Simple Pairing, 0 or 1: only the default PIN lets the store choose, others need none. */
int readLegacyMode(Configuration &configuration, const QString &pid);

/** The Bluetooth name of the product: its nickname, or one with its serial number. */
QString readBluetoothName(Configuration &configuration);

/** The name with blanks as underscores, and nothing else but ASCII letters, digits, underscores. */
QString bluetoothName(const QString &name);

} // namespace Settings

#endif
