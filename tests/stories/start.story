# From the start of the process to its end.

== The service tells of its settings, runs, and switches Bluetooth on
& service
4 Starting Bluetooth Manager...
in main.cpp bluetoothobj int main(int, char**)
4 reconnection timeout 100
4 legacy mode 0
+ the settings are told
4 Enable
4 [DBUS|Internal] SetEnabled(true) requested
4 Saving bluetooth configuration
4 Enable (true) not saved because already saved
+ the stack comes up
nothing else
never | DBUS*
= 0 true true 7351

== The service does not run without the {bus} bus
for bus, before
| system |
| session | - bus system kill
with service stopped
{before}
- bus {bus} kill
- service start
4 Starting Bluetooth Manager...
1 DBUS: Can't connect {bus} bus
| DBUS: Can't connect {bus} bus
. service ended with status 255
nothing else of 1 2 4 9 $ |

== The service does not run where another has its name
with service stopped
name taken
- service start
4 > Latency:        1000
1 DBUS: Can't register service [com.orbitalis.ulmo.bluetoothmanager]
. service ended with status 255
never 4 Bluetooth Manager running
never $ *
never | DBUS*

== The service does not run with settings that it cannot read
with service stopped
spoil the settings
- service start
4 Starting Bluetooth Manager...
# The file and the place in it, by which a person finds the mistake.
1 settings file /run/product/out/settings.ini unusable: *
1 Impossible to initialize Configuration proxy
1 Fatal error while crating the BluetoothManager
1 Impossible to crate a valid SoundManager
in main.cpp soundobj int main(int, char**)
. service ended with status 255
nothing else of 1 2 4 9 $ |

== The service stops in order ({signal})
for signal, state, ends
| TERM | the service runs with Bluetooth off | the stack that is off goes down
| INT | Bluetooth is on | the stack goes down
+ {state}
--
- service kill {signal}
2 signal SIGINT or SIGTERM received
in main.cpp bluetoothobj void signals_handler(int)
4 Gracefully stop BluetoothManager Adapter...
in main.cpp soundobj int main(int, char**)
4 Gracefully stop BluetoothManager...
+ {ends}
+ the service has stopped
# What is seen of it on the bus is gone by then.
@ StopPlay bluetooth ""
nothing else
everything ends

== A request to stop that comes before the service runs is not lost
4 reconnection timeout *
- service kill TERM
2 signal SIGINT or SIGTERM received
4 Gracefully stop BluetoothManager Adapter...
4 Gracefully stop BluetoothManager...
+ the service has stopped
everything ends

== The service stops while Bluetooth is being switched on, undisturbed by a second request
with fault bluetoothd no-name
with fault bluetoothd ignore-term
+ bluetoothd runs
- service kill TERM
2 signal SIGINT or SIGTERM received
4 Gracefully stop BluetoothManager Adapter...
4 Gracefully stop BluetoothManager...
4 forceSyncDown
$ hciconfig hci0 noscan
4 forceSyncDown terminate bluez
- service kill INT
2 signal SIGINT or SIGTERM received
4 forceSyncDown kill bluez
$ hciconfig hci0 down
@ StopPlay bluetooth ""
+ the service has stopped
nothing else
everything ends

== The service goes on without its {bus} bus, stops in order, and plays again when the bus is back
for bus, line, noticed
| session | - phone anna leave | 4 stop pulseaudio because not used any more
| system | | 4 forceSyncDown
+ anna is playing
- bus {bus} kill
{line}
{noticed}
- service stop
4 Succesfully terminated
. service ended with status 0
everything ends
- bus {bus} start
- service start
+ Bluetooth is on
+ anna comes

== The children of a service that was killed are ended by the next one
# Stopped processes end by nothing else than SIGKILL, not even when their bus goes.
+ anna is streaming
- kill pulseaudio STOP
- kill agent STOP
- kill bluetoothd STOP
- service kill KILL
. service ended by signal 9
- service start
. pulseaudio ended by signal 9
. agent ended by signal 9
. bluetoothd ended by signal 9
+ Bluetooth is on
