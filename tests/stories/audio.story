# The way of the sound through PulseAudio. With the back-end "hci other" a connection counts as the
# unit's own at once; without auto-play BlueZ soon closes a stream that never was.

== A sound server or an audio that does not show up 40 times is given up, and the phone with it
+ there is anna
- backend hci other
- phone anna auto-play on
- fault pactl:stat exit=1
- phone anna connect
4 wait pulseaudio ... {1..39}
1 error starting pulseaudio, so disconnect
4 Disconnect {anna}
+ anna is gone
> Device.SetProperty anna Trusted true
> Device.Disconnect anna
nothing else of 1 2 9 > @
never 4 wait pulseaudio ... 40
# One whose audio does not show up is forgotten as well.
- fault clear pactl
- fault pactl:discover exit=1
- phone anna connect
9 /usr/bin/pactl load-module module-bluetooth-discover
2 /usr/bin/pactl load-module module-bluetooth-discover <- 256
4 wait pulseaudio bluetooth module ready... {1..39}
1 error starting pulseaudio, so disconnect
4 trust {anna} false
4 Disconnect {anna}
+ anna is gone
4 removeDevice {anna}
4 removeDevice {anna} Remove Device, pair again
> Device.SetProperty anna Trusted true
> Device.SetProperty anna Trusted false
> Device.Disconnect anna
> Adapter.RemoveDevice hci0 anna
nothing else of 1 2 > @
never 4 wait pulseaudio bluetooth module ready... 40

== Server and audio that come at the 40th poll are in time, a sink that does not load is no matter
# Polls for a phone that has gone do not count.
+ anna is polling
- phone anna drop
. pulseaudio ended *
- backend hci other
- phone anna auto-play on
- fault pactl:stat exit=1 times=39
- fault pactl:alsa-sink exit=2
- fault pactl:loopback exit=1 times=39
- phone anna connect
4 wait pulseaudio ... 1
# Polls come 100 ms after one another, as read by a machine that may be busy.
after 0.05 to 5 s
4 wait pulseaudio ... {2..39}
4 /usr/bin/pactl load-module module-alsa-sink sink_name=output device=dm-audio
2 /usr/bin/pactl load-module module-alsa-sink sink_name=output device=dm-audio <- 512
9 /usr/bin/pactl load-module module-bluetooth-discover
4 /usr/bin/pactl load-module module-bluetooth-discover <- 0
4 wait pulseaudio bluetooth module ready... 1
after 0.05 to 5 s
4 wait pulseaudio bluetooth module ready... {2..39}
+ anna is linked
@ ConnectAudioDevice
@ PlayBluetooth
nothing else of 1 2

== A sound server that cannot be started, or ends while it is awaited, ends the connection
+ there is anna
- fault pulseaudio missing
- phone anna connect
+ anna is made again
4 try to start pulseaudio for {anna}
2 problem starting pulseaudio for device {anna}, so disconnect device
4 Disconnect {anna}
+ anna is let go
> Device.Disconnect anna
never @ ConnectAudioDevice
+ all is well again
- fault pactl:stat exit=1
- phone anna connect
4 wait pulseaudio ... 2
--
- kill pulseaudio KILL
2 pulseaudio down * crash
4 Disconnect {anna}
+ anna is let go
+ the sound that was to come ends
> Device.Disconnect anna
# Stopped with the device, and once more.
+ nobody is played
+ nobody is played
nothing else of 1 2 $ > @
+ all is well again
+ anna comes
