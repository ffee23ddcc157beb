// The names under which this service and its neighbours are known on the session bus.
#ifndef NAMES_H
#define NAMES_H

namespace Names {
const char Service[] = "com.orbitalis.ulmo.bluetoothmanager";
/** Object of the service, of most of its log lines and of its platform clients. */
const char Object[] = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj";
const char Interface[] = "com.orbitalis.ulmo.bluetoothinterface";
const char LogObject[] = "/com/orbitalis/ulmo/bluetoothmanager/logobj";

const char SoundManagerService[] = "com.orbitalis.ulmo.soundmanager";
const char SoundManagerObject[] = "/com/orbitalis/ulmo/soundmanager/soundobj";
} // namespace Names

#endif
