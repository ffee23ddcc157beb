# A new PIN: every phone is forgotten, the PIN is saved, and the stack starts again with it.

== A PIN that is the same or none changes nothing
+ anna is playing
- call SetPid s:7351 => 0
4 [DBUS|Internal] SetPid(7351) requested
nothing else
- call SetPid "s:{|123|12345|12a4|-123|12 4}" => 1
4 [DBUS|Internal] SetPid({<none>|123|12345|12a4|-123|12 4}) requested
nothing else
= 0 true true 7351

== A new PIN forgets all phones and restarts Bluetooth
for pin
| 4711
with setting bt-disable-legacy 1
$ hciconfig hci0 sspmode 1
+ anna is streaming
- phone add berta known
- pin {pin}
4 [DBUS|Internal] SetPid({pin}) requested
4 Disconnect connected device
4 DisconnectDevice
4 Disconnect {anna}
> Device.Disconnect anna
+ anna is gone
4 Remove all device
4 RemoveAllDevices
> Manager.DefaultAdapter /
> Adapter.ListDevices hci0
4 error listing device on {adapter}
4 removeDevice {anna}
4 removeDevice {anna} Remove Device, pair again
4 removeDevice {berta}
4 removeDevice {berta} Remove Device, pair again
> Adapter.RemoveDevice hci0 anna
> Adapter.RemoveDevice hci0 berta
4 legacy mode 0
@ BluetoothPidChanged {pin}
4 Saving bluetooth configuration
4 PID SAVED ({pin})
4 Disable/Enable for pid change
4 [DBUS|Internal] SetEnabled(false) requested
4 Saving bluetooth configuration
4 Enable SAVED (false)
4 startStopSequence requested
+ the stack goes down
+ nobody is played
@ BluetoothOn false
+ Bluetooth is asked for
4 Enable SAVED (true)
+ the stack comes up
nothing else of 1 2 4 $ & @
settings bt-pid={pin}
= 0 true true {pin}
# It is forgotten, and pairs with the new PIN.
- phone anna forget
- phone anna pin {pin}
+ anna comes

== A new PIN is saved where Bluetooth did not come on, and used as well where it cannot be
with setting bt-disable-legacy 1
with setting bt-pid 1234
with fault bluetoothd missing
1 error starting bluez
+ the stack that is off goes down
+ nobody is played
- pin 7351
4 [DBUS|Internal] SetPid(7351) requested
4 Disconnect connected device
4 DisconnectDevice
4 Remove all device
4 RemoveAllDevices
2 error get DefaultAdapter
4 legacy mode 1
@ BluetoothPidChanged 7351
4 Saving bluetooth configuration
4 PID SAVED (7351)
! SetPid 0
nothing else
settings bt-pid=7351
= 0 true false 7351
spoil the settings
- pin 1234
4 set legacy mode 1
4 legacy mode 0
4 Saving bluetooth configuration
1 Impossible to initialize Configuration proxy
@ BluetoothPidChanged 1234
= 0 true false 1234
# What cannot be read is never overwritten.
settings spoilt=1
