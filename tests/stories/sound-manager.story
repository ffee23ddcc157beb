# The sound manager is asked to play and to stop, and only a refused stop has a consequence.

== A request that is {answer} changes nothing else when nobody is held
for answer, fault, play, stop, log
| refused | refuse | @ PlayBluetooth | @ StopPlay bluetooth "" | bluetooth play so disconnect
| not possible | absent | | | bluetooth play
+ anna is linking
- fault soundmanager {fault}
- fault clear pactl
@ ConnectAudioDevice
{play}
2 error enabling sound manager for bluetooth play
nothing else of 1 2 @ >
- phone anna leave
# What is played went on till then.
4 Device {anna} DISCONNECTED SO STOP PULSEAUDIO
{stop}
@ DisconnectAudioDevice
2 error enabling sound manager for {log}
nothing else of 1 2 @ >
- fault clear
+ anna comes

== A phone that is held when a stop is refused is disconnected, once
+ there is anna
# Asked when the connection is made again, refused when it is there again.
- fault soundmanager refuse=2500
- phone anna connect
2 trust for {anna} is true
@ PlayBluetooth
2 error enabling sound manager for bluetooth play so disconnect
4 Disconnect {anna}
+ anna is gone
* anna link-down
* anna link-down
# So is the stop that is asked for here, when nobody is held.
2 error enabling sound manager for bluetooth play
< StopPlay Failed *
< StopPlay Failed *
nothing else of 1 2

== The refusal of an older request to stop, when a newer one was granted, is of no interest
+ there is anna
- fault soundmanager refuse=8000 times=1
- phone anna connect
@ StopPlay bluetooth ""
@ PlayBluetooth
- phone anna leave
+ anna is gone
- phone anna connect
@ PlayBluetooth
< StopPlay Failed *
never 2 error enabling sound manager for bluetooth play so disconnect
- call DisconnectDevice => 0
