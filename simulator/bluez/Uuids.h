#ifndef UUIDS_H
#define UUIDS_H

#include <QString>

/// The Bluetooth service identifiers that matter here, as BlueZ writes them.
namespace Uuids {

const QString AudioSource = QStringLiteral("0000110a-0000-1000-8000-00805f9b34fb");
const QString AudioSink = QStringLiteral("0000110b-0000-1000-8000-00805f9b34fb");
const QString RemoteControlTarget = QStringLiteral("0000110c-0000-1000-8000-00805f9b34fb");
const QString AdvancedAudio = QStringLiteral("0000110d-0000-1000-8000-00805f9b34fb");
const QString RemoteControl = QStringLiteral("0000110e-0000-1000-8000-00805f9b34fb");

} // namespace Uuids

#endif
