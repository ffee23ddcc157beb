# Callers forget phones, one or all, and disconnect the one that is connected.

== A phone is forgotten, known or not, and an address that is none is told
+ there is anna
- forget 00:1A:7D:DA:71:13
4 RemoveDevice
> Manager.DefaultAdapter /
2 remove device {anna}
4 removeDevice {anna}
4 removeDevice {anna} Remove Device, pair again
> Adapter.RemoveDevice hci0 anna
< Adapter.RemoveDevice hci0
! RemoveDevice 0
nothing else
- forget 00:1a:7D:DA:71:77
2 remove device {adapter}/dev_00_1a_7D_DA_71_77
> Adapter.RemoveDevice hci0 *dev_00_1a_7D_DA_71_77
< Adapter.RemoveDevice hci0 DoesNotExist *
! RemoveDevice 0
# Of these BlueZ is not asked.
- call RemoveDevice "s:{00-1A-7D-DA-71-13|AA:BB CC}" => 0
4 RemoveDevice
2 remove device {adapter}/dev_00-1A-7D-DA-71-13
4 removeDevice {adapter}/dev_00-1A-7D-DA-71-13
2 removeDevice {adapter}/dev_00-1A-7D-DA-71-13 error Remove Device
4 RemoveDevice
2 remove device {adapter}/dev_AA_BB CC
4 removeDevice {adapter}/dev_AA_BB CC
2 removeDevice {adapter}/dev_AA_BB CC error Remove Device
nothing else
= 0 true true 7351

== All phones of BlueZ's list are forgotten in its order, whatever becomes of another one
+ Bluetooth is on
- phone add carla known
- phone add anna known
- phone add berta known
- fault bluez:Adapter.RemoveDevice error=DoesNotExist times=1 after=1
- forget all
4 RemoveAllDevices
> Manager.DefaultAdapter /
> Adapter.ListDevices hci0
4 error listing device on {adapter}
4 removeDevice {carla}
4 removeDevice {carla} Remove Device, pair again
4 removeDevice {anna}
4 removeDevice {berta}
4 removeDevice {berta} Remove Device, pair again
> Adapter.RemoveDevice hci0 carla
> Adapter.RemoveDevice hci0 anna
> Adapter.RemoveDevice hci0 berta
! RemoveAllDevices 0
never ~ hci0 Adapter.DeviceRemoved anna
- fault bluez:Adapter.ListDevices error times=1
- forget all
4 RemoveAllDevices
> Adapter.ListDevices hci0
! RemoveAllDevices 0
never > Adapter.RemoveDevice *
# Nobody waits for BlueZ, as for 25 s the bus library does.
- fault bluez:Adapter.RemoveDevice never
- forget 00:1A:7D:DA:71:13
! RemoveDevice 0
- forget all
> Adapter.RemoveDevice hci0 anna
# The answer may be noticed before the call.
after -1 to 10 s
! RemoveAllDevices 0

== A phone that is forgotten while it plays is held until it is gone
with timescale 0.15
+ anna is playing
- forget 00:1A:7D:DA:71:13
! RemoveDevice 0
2 remove device {anna}
4 removeDevice {anna} Remove Device, pair again
> Adapter.RemoveDevice hci0 anna
+ anna is gone
nothing else of 2 > @
- phone anna forget
+ anna comes

== Nothing is forgotten without an adapter
with fault bluez:Manager.DefaultAdapter error=NoSuchAdapter after=1
+ Bluetooth is on
- forget 00:1A:7D:DA:71:13
4 RemoveDevice
2 error get DefaultAdapter
! RemoveDevice 1
nothing else
- forget all
4 RemoveAllDevices
2 error get DefaultAdapter
! RemoveAllDevices 1
nothing else

== The phone that is accepted is disconnected on demand
+ anna is accepted
- disconnect
4 DisconnectDevice
4 Disconnect {anna}
> Device.Disconnect anna
+ anna is let go
+ nobody is played
! DisconnectDevice 0
nothing else of 1 2 9 $ & > @
- disconnect
4 DisconnectDevice
! DisconnectDevice 1
nothing else
