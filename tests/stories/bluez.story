# The virtual BlueZ does as a real bluetoothd 4.101 did, recorded with scripted phones.
# The service is held meanwhile, and somebody else asks BlueZ what the unit would.

== A phone pairs, plays, is lost, comes back and leaves ({backend})
for backend
| mgmt
| hci
+ BlueZ is left alone
- backend {backend}
+ anna pairs
- phone anna connect-a2dp
~ anna Device.Connected true
~ anna AudioSource.State connecting
> Agent.Authorize /org/bluez/agent anna 0000110d-*
< Agent.Authorize /org/bluez/agent
~ anna AudioSource.State connected
- phone anna play
~ anna AudioSource.State playing
- phone anna pause
~ anna AudioSource.State connected
- phone anna play
~ anna AudioSource.State playing
- phone anna drop
~ anna Device.Connected false
~ anna AudioSource.State disconnected
nothing else of > < ~
- phone anna connect-a2dp
~ anna Device.Connected true
~ anna AudioSource.State connecting
~ anna AudioSource.State connected
- phone anna close
~ anna AudioSource.State disconnected
- phone anna leave
~ anna Device.Connected false
nothing else of > < ~
- kill bluetoothd TERM
> Agent.Release /org/bluez/agent
~ org.bluez is gone

== The unit trusts, connects, disconnects and removes a phone ({backend})
for backend, first, second, third, early
| mgmt | < Device.Disconnect anna | ~ anna Device.Connected false | ~ anna AudioSource.State disconnected | Failed "Failed to create a stream"
| hci | < Device.Disconnect anna | ~ anna Device.Connected false | ~ anna AudioSource.State disconnected | AlreadyConnected "Already Connected"
+ BlueZ is left alone
- backend {backend}
+ anna pairs
shell busctl call org.bluez {anna} org.bluez.Device SetProperty sv Trusted b true
> Device.SetProperty anna Trusted true
~ anna Device.Trusted true
< Device.SetProperty anna
shell busctl call org.bluez {anna} org.bluez.Device SetProperty sv Trusted b true
> Device.SetProperty anna Trusted true
< Device.SetProperty anna
+ the unit connects anna
shell busctl call org.bluez {anna} org.bluez.AudioSource Connect
< AudioSource.Connect anna AlreadyConnected "Already Connected"
shell busctl call org.bluez {anna} org.bluez.Device Disconnect
> Device.Disconnect anna
~ anna Device.DisconnectRequested
{first}
{second}
{third}
nothing else of > < ~
shell busctl call org.bluez {anna} org.bluez.Device Disconnect
< Device.Disconnect anna NotConnected "Not Connected"
+ the unit connects anna
shell busctl call org.bluez {adapter} org.bluez.Adapter RemoveDevice o {anna}
> Adapter.RemoveDevice hci0 anna
~ anna Device.DisconnectRequested
< Adapter.RemoveDevice hci0
~ anna Device.Connected false
~ hci0 Adapter.Devices []
~ hci0 Adapter.DeviceRemoved anna
nothing else of > < ~
shell busctl call org.bluez {anna} org.bluez.Device Disconnect
< Device.Disconnect * UnknownObject "Method \"Disconnect\" with signature \"\" on interface \"org.bluez.Device\" doesn't exist"
shell busctl call org.bluez {adapter} org.bluez.Adapter RemoveDevice o {anna}
< Adapter.RemoveDevice hci0 DoesNotExist "Does Not Exist"

== A phone that opens its audio straight after pairing asks for both at once
+ BlueZ is left alone
- phone anna connect
~ hci0 Adapter.DeviceCreated anna
~ hci0 Adapter.Devices ["anna"]
~ anna Device.Connected true
~ anna Device.Name anna
~ anna Device.Alias anna
> Agent.RequestPinCode /org/bluez/agent anna
< Agent.RequestPinCode /org/bluez/agent 7351
~ anna Device.Paired true
~ anna Device.UUIDs *0000110d*
> Agent.Authorize /org/bluez/agent anna 0000110d-*
< Agent.Authorize /org/bluez/agent
~ anna Device.UUIDs *0000110a*0000110d*
~ anna AudioSource.State connected
nothing else of > < ~
