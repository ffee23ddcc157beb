// Object paths of BlueZ 4 devices, and the names derived from them.
#ifndef DEVICEPATH_H
#define DEVICEPATH_H

#include <QtCore/QString>

namespace DevicePath {

/**
 * Path of the device with a Bluetooth address ("AA:BB:CC:DD:EE:FF") below its adapter. The address
 * is taken as it is, so the result is an object path only for an address that makes one.
 */
QString ofAddress(const QString &adapterPath, const QString &address);

/** Whether the text may be sent as an object path: names of [A-Za-z0-9_], each after a slash. */
bool isValid(const QString &devicePath);

/** Path of the adapter that a device hangs below. */
QString adapterOf(const QString &devicePath);

/** PulseAudio's name for the audio source of a device: "bluez_source.AA_BB_CC_DD_EE_FF". */
QString pulseAudioSource(const QString &devicePath);

} // namespace DevicePath

#endif
