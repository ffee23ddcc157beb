# BlueZ says what it never should, does not answer, or is gone; strangers speak in its place.

== Signals that have no meaning here, or come from strangers, change nothing
+ anna is playing
- signal {anna} org.bluez.Device.PropertyChanged {s:Mood v:s:fine|s:Trusted v:b:false}
- signal {anna} org.bluez.Device.PropertyChanged {s:Connected b:false||s:State v:s:disconnected}
- signal {anna} org.bluez.AudioSource.PropertyChanged s:State {v:s:dreaming|v:v:s:disconnected}
- signal {anna} org.bluez.AudioSource.PropertyChanged s:Connected v:b:false
- signal {anna} org.bluez.{Device.DisconnectRequested|Audio.PropertyChanged s:State v:s:connected}
- signal {berta} org.bluez.Device.PropertyChanged s:Connected v:b:false
- signal {berta} org.bluez.AudioSource.PropertyChanged s:State v:s:disconnected
nothing else
- spoof {anna} org.bluez.Device.PropertyChanged s:Connected v:b:false
- spoof {anna} org.bluez.AudioSource.PropertyChanged s:State v:s:connected
- spoof {berta} org.bluez.Device.PropertyChanged s:Connected v:b:true
- spoof {berta} org.bluez.AudioSource.PropertyChanged s:State v:s:playing
nothing else
never 4 *PropertyChanged (*){*
# She is played as before.
- phone anna pause
4 start/restart timer for no play
nothing else
# What is said is taken as a text, and only "true" is connected.
- signal {anna} org.bluez.Device.PropertyChanged s:Connected v:s:true
4 DevicePropertyChanged (org.bluez.Device){anna} Connected=true
4 Device {anna} CONNECTED AND ACCEPTED
nothing else
- signal {anna} org.bluez.Device.PropertyChanged s:Connected v:s:True
+ anna is gone
nothing else

== A daemon that ends while a phone's sound is to come takes the phone with it, and both come back
+ anna is polling
- kill bluetoothd
2 bluezDown down * crash
4 forceSyncDown
$ hciconfig hci0 noscan
4 forceSyncDown terminate agent
$ hciconfig hci0 down
+ the sound that was to come ends
+ nobody is played
4 restart
+ the stack comes up
# There was nobody to call.
nothing else
# Nor does anything wait for the sound any more, which is seen in the second until the next start.
- kill bluetoothd
4 restart
+ the stack comes up
never 4 wait pulseaudio *
+ all is well again
# The phone has another path now.
- phone anna connect
4 Device {anna} CONNECTED AND ACCEPTED

== A call that BlueZ does not live to answer has failed, and so has the next one
+ there is anna
- fault bluez:Device.Disconnect never
- phone anna connect
> Device.Disconnect anna
# For the next daemon; this call stays unanswered.
- fault clear bluez
- kill bluetoothd
2 disconnectDevice {anna} error disconnectiong 
+ anna is let go
4 connectAudioSource {anna}
2 connectAudioSource {anna} *error*
2 bluezDown down * crash
+ Bluetooth is on
+ anna comes

== BlueZ that does not answer holds the service up until the bus library gives up, after 25 s
+ anna is playing
- fault bluez:Device.Disconnect never
- disconnect
4 Disconnect {anna}
after 24 to 40 s
2 disconnectDevice {anna} error disconnectiong 
+ anna is gone
! DisconnectDevice 0
= 0 true true 7351

== What a daemon said before its end is of no interest when it is gone
+ anna is playing
- phone add carla trusted
- fault bluez:Device.Disconnect delay=500
shell& ulmoctl pin 1234
> Device.Disconnect anna
- signal {berta} org.bluez.Device.PropertyChanged s:Connected v:b:true
! SetPid 0
+ Bluetooth is on
never 4 DevicePropertyChanged (org.bluez.Device){berta} *
# Nor is it a first sign of a phone.
- phone carla pin 1234
- phone carla forget
+ carla comes
