# The service as its callers see it on the session bus.

== Each method of a service that is switched off answers, and what is none is refused
+ the service runs with Bluetooth off
- call GetStatus => 0 false false 7351
- call SetEnabled b:false => 0
- call SetPid s:7351 => 0
- call SetVolume i:40 => 0
- call SetMute i:1 => 0
- call DisconnectDevice => 1
- call RemoveAllDevices => 1
- call RemoveDevice s:00:1A:7D:DA:71:13 => 1
- call org.freedesktop.DBus.Introspectable.Introspect => *@Enable: out Enable or not*
--
-! call {GetVolume|getStatus|SetPid i:1234|SetEnabled s:true|SetVolume u:4|SetEnabled} => *UnknownM*
-! call {bluezRestart|DevicePropertyChanged s:Connected v:b:true|deleteLater} => *UnknownMethod*
-! call {com.orbitalis.ulmo.other|local.BluetoothManager}.GetStatus => *UnknownInterface*
nothing else
= 0 false false 7351
