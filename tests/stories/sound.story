# A phone is heard: through real PulseAudio, loaded and told by the service, and real ALSA down to
# the board's output, at the level and the frequencies that the phone plays.

== A phone is heard, quieter, muted, and at full volume when it comes back
with real sound
with timescale 1
with setting bt-timeout-reconnect-1 500
+ Bluetooth is on
- phone add anna
- phone anna connect
+ anna is played
- phone anna play
heard 440 Hz 660 Hz -9.03 dB
- volume 40 => 0
# PulseAudio's volumes are cubic.
heard 440 Hz 660 Hz -32.91 dB
- mute 1 => 0
heard silence
- mute 0 => 0
heard 440 Hz 660 Hz -32.91 dB
- phone anna leave
+ anna is gone
. pulseaudio ended*
heard silence
# A new server begins at full volume, whatever was set before.
+ anna comes
- phone anna play
heard 440 Hz 660 Hz -9.03 dB
