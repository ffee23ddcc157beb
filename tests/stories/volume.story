# Volume and mute: what a caller gets back, and what PulseAudio is told, before, while and after a
# phone is played. Before there is a server a value is only remembered.

== A volume and a mute that are set before are remembered, and only one too big is sent, as 100
+ there is anna
- volume 40 => 0
- mute 1 => 0
nothing else
- phone anna connect
@ PlayBluetooth
never $ pactl set-*
- volume 40 => 0
- mute 1 => 0
nothing else
- volume 41 => 0
+ volume 41 is set
- mute 0 => 0
+ mute 0 is set
- phone anna leave
+ anna is gone
# They outlive the server, and the next one begins with its own.
- phone anna connect
@ PlayBluetooth
never $ pactl set-*
- volume 41 => 0
- mute 0 => 0
nothing else
- phone anna leave
+ anna is gone
- volume 150 => 0
- phone anna connect
+ anna is linked
$ pactl set-source-output-volume 0 100%
4 set volume /usr/bin/pactl set-source-output-volume 0 100% <- 0
@ PlayBluetooth
- volume 150 => 0
nothing else

== What failed is told and not remembered, and a volume out of bounds is brought into them
+ anna is linking
# There is no sound yet whose volume could be set.
- volume 40 => 256
2 set volume /usr/bin/pactl set-source-output-volume 0 40% <- 256
- fault clear pactl
@ PlayBluetooth
--
- volume 101 => 0
nothing else
- call SetVolume i:-5 => 0
+ volume 0 is set
- call SetVolume i:-2147483648 => 0
nothing else
- call SetVolume i:2147483647 => 0
+ volume 100 is set
- mute 2 => 0
+ mute 2 is set
- fault pactl:set-source exit=3 times=1
- mute 1 => 768
2 set mute /usr/bin/pactl set-source-output-mute 0 1 <- 768
- mute 1 => 0
+ mute 1 is set
- mute 1 => 0
nothing else
