# A connection that a phone makes by itself is dropped and made again by the unit: at once where the
# phone is trusted, after a while where it is new. Only a connection of the unit's own is played.

== A phone that is trusted is connected again at once, and played
+ there is anna
- phone anna auto-play on
- phone anna connect
4 Device {anna} CONNECTED AND ACCEPTED
in BluetoothManager.cpp bluetoothobj void BluetoothManager::DevicePropertyChanged(*)
4 IsTrustDevice {anna}
2 trust for {anna} is true
> Device.GetProperties anna
+ anna is made again
+ anna is played
# What the phone had begun before it was dropped may be told afterwards.
nothing else of > @ &
- phone anna leave
+ anna is gone
--
# One of which BlueZ tells the audio first counts as the unit's own.
- backend hci other
- phone anna connect
+ anna is played
nothing else

== A new phone is trusted, and connected again after a while
with setting bt-timeout-reconnect-1 900
+ Bluetooth is on
- phone add anna
- phone anna auto-play on
- phone anna connect
4 Device {anna} CONNECTED AND ACCEPTED
4 IsTrustDevice {anna}
2 trust for {anna} is false
4 load timer for reconnect
4 trust {anna} true
> Device.GetProperties anna
> Device.SetProperty anna Trusted true
after 0.8 to 5 s
4 reconnect
4 Disconnect {anna}
> Device.Disconnect anna
< Device.Disconnect anna
+ nobody is played
+ anna is let go
# A real BlueZ refuses a connection that is asked for sooner.
after 0.05 to 5 s
4 connectAudioSource {anna}
> AudioSource.Connect anna
< AudioSource.Connect anna
+ anna is the unit's own
@ PlayBluetooth

== What happens while a phone waits to be connected again makes no difference ({event})
for event
| phone anna leave
| platform suspend
with setting bt-timeout-reconnect-1 3000
+ anna is accepted for a while
- phone anna pause
4 waiting to reconnect
- phone anna play
4 waiting to reconnect
nothing else
- {event}
+ anna is let go
+ nobody is played
4 reconnect
4 Disconnect {anna}
2 disconnectDevice {anna} error disconnectiong 
4 connectAudioSource {anna}
> AudioSource.Connect anna
+ anna is played

== A phone that only pairs is left alone
+ Bluetooth is on
- phone add anna
- phone anna pair
# The link goes when it is idle, and comes once more since BlueZ asks for the services.
4 Device {anna} CONNECTED AND ACCEPTED
+ anna is let go
+ nobody is played
4 Device {anna} CONNECTED AND ACCEPTED
+ anna is let go
+ nobody is played
nothing else

== A phone that cannot be connected again is forgotten
+ there is anna
- phone anna refuse
- phone anna connect
+ anna is made again
2 connectAudioSource {anna} error Connect
4 trust {anna} false
4 removeDevice {anna}
4 removeDevice {anna} Remove Device, pair again
> Device.SetProperty anna Trusted false
> Adapter.RemoveDevice hci0 anna
~ hci0 Adapter.DeviceRemoved anna
never & pulseaudio *

== A phone that cannot be disconnected does not hold the unit
+ anna is streaming
- fault bluez:Device.Disconnect error
- disconnect
4 DisconnectDevice
4 Disconnect {anna}
2 disconnectDevice {anna} error disconnectiong 
+ anna is gone
> Device.Disconnect anna
nothing else
# What it still does is of no interest: it is not connected any more.
- phone anna play
- phone anna pause
- call DisconnectDevice => 1
4 DisconnectDevice
nothing else
- fault clear
- phone anna leave
4 Device {anna} DISCONNECT
nothing else
+ anna comes

== A phone that can neither be asked about its trust nor be trusted is played all the same
+ there is anna
- fault bluez:Device.GetProperties error
- fault bluez:Device.SetProperty error
- phone anna connect
4 IsTrustDevice {anna}
2 error reading trust for {anna}
4 load timer for reconnect
4 trust {anna} true
2 error trusting {anna}
4 reconnect
4 connection coming from ulmo
4 trust {anna} true
2 error trusting {anna}
@ PlayBluetooth

== A second phone is refused, and the first is not disturbed ({state}, {backend})
for state, backend, first, second
| accepted | mgmt | DevicePropertyChanged but not for me, disconnect !! | disconnect device *
| playing | hci other | disconnect device because there is another | DevicePropertyChanged but *
+ anna is {state}
- backend {backend}
- phone add berta trusted
- phone berta connect
4 {first}
4 Disconnect {berta}
> Device.Disconnect berta
4 {second}
4 Disconnect {berta}
> Device.Disconnect berta
2 disconnectDevice {berta} error disconnectiong*
* berta link-down
nothing else
= 0 true true 7351
- phone anna leave
4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO

== Any state of a phone's audio is a first sign of it, after which others are refused
+ there is anna
- phone add berta trusted
- signal {anna} org.bluez.AudioSource.PropertyChanged s:State v:s:disconnected
--
- phone berta connect-acl
4 DevicePropertyChanged but not for me, disconnect !!
4 Disconnect {berta}
> Device.Disconnect berta
* berta link-down
nothing else
# The end of the first one's link frees the place.
- signal {anna} org.bluez.Device.PropertyChanged s:Connected v:b:false
4 Device {anna} DISCONNECT
nothing else
+ berta comes

== A phone goes away, its sound ends, and it can come again ({state}, {backend}, {how})
for state, backend, how, ends
| polling | hci | drop | the sound that was to come ends
| streaming | mgmt | out-of-range | the sound ends
+ anna is {state}
- backend {backend}
- phone anna {how}
+ anna is let go
+ {ends}
+ nobody is played
. pulseaudio ended*
nothing else
- fault clear
- phone anna in-range
- phone anna connect
4 reconnect
+ anna is played

== A phone that has ended its audio holds its place as long as its link
+ anna is playing
- phone add berta trusted
# Phones keep the link for some seconds, here for many.
- timescale 20
- phone anna leave
~ anna AudioSource.State disconnected
- timescale 0.05
- phone berta connect
4 DevicePropertyChanged but not for me, disconnect !!
* berta link-down
never 4 Device {anna} DISCONNECT*
- phone anna drop
+ anna is gone
--
+ berta comes

== The last word of a phone that is gone is a first sign of it ({how})
for how, outcome
| leave | 4 Device {berta} CONNECTED AND ACCEPTED
| drop | 4 DevicePropertyChanged but not for me, disconnect !!
+ anna is streaming
- phone add berta known
- phone anna {how}
+ anna is gone
~ anna AudioSource.State disconnected
--
- phone berta connect-acl
{outcome}

== A phone that is connected but silent is reported every 10 s, from when it fell silent
+ anna is linking
4 wait pulseaudio bluetooth module ready... 12
- fault clear
- phone anna play
- phone anna pause
4 start/restart timer for no play
- signal {anna} org.bluez.AudioSource.PropertyChanged s:State v:s:connected
4 start/restart timer for no play
- signal {berta} org.bluez.AudioSource.PropertyChanged s:State v:s:disconnected
after 9.4 to 14 s
4 CONNECTED BUT NOT PLAYING
@ NoPlayConnectedDevive
after 9.4 to 14 s
4 CONNECTED BUT NOT PLAYING
@ NoPlayConnectedDevive
never 4 reconnect

== A phone that was silent is not reported any more when {what}
for what, before, line, sign, told
| its stream is started | ~ anna AudioSource.State playing | | | 2 error enabling sound manager *
| it plays | - phone anna pause | - phone anna play | | 2 error enabling sound manager *
| Bluetooth is switched off | - phone anna pause | - disable | @ BluetoothOn false | never 2 *
| another one is refused | - phone anna pause | - phone berta connect-acl | > Device.Disconnect berta |
+ there is anna
- phone add berta known
# The answer to the play request, which comes after the timer's start, is later than its end.
- fault soundmanager refuse=11500 after=1 times=1
- phone anna connect
4 start/restart timer for no play
@ PlayBluetooth
# PulseAudio has the stream started without the phone, which then suspends it.
{before}
--
{line}
{sign}
< PlayBluetooth Failed *
{told}
never @ NoPlayConnectedDevive
