# Bluetooth is switched on and off, also where BlueZ or a command does not do as it should.

== Bluetooth is switched on and off, and nothing is left of it
+ the service runs with Bluetooth off
= 0 false false 7351
+ Bluetooth is switched on anew
settings bt-enable=1
+ Bluetooth is switched on
4 Enable (true) not saved because already saved
4 [DBUS|Internal] SetEnabled(true) requested but nothing to do
! SetEnabled 0
nothing else
= 0 true true 7351
+ Bluetooth is switched off
+ the stack goes down
+ nobody is played
@ BluetoothOn false
# Whoever waits for the answer has heard the signal before.
! SetEnabled 0
nothing else
settings bt-enable=0
= 0 false false 7351
- disable
4 [DBUS|Internal] SetEnabled(false) requested
4 Saving bluetooth configuration
4 Enable (false) not saved because already saved
4 [DBUS|Internal] SetEnabled(false) requested but nothing to do
! SetEnabled 0
nothing else
- service stop
everything ends

== A phone that is played when Bluetooth is switched off is not held any more
+ anna is playing
+ Bluetooth is switched off
+ the stack goes down
+ the sound ends
+ nobody is played
@ BluetoothOn false
nothing else
- call DisconnectDevice => 1
4 DisconnectDevice
nothing else
+ Bluetooth is switched on anew
- phone add berta trusted
+ berta comes

== No command that fails keeps Bluetooth from coming up
+ the service runs with Bluetooth off
- fault modprobe exit=1
- fault connmanctl exit=1
- fault hciconfig:up exit=1
- fault sdptool exit=1
- fault hciconfig:sspmode exit=3
- fault hciconfig:lm exit=1
- fault hciconfig:piscan exit=1
+ Bluetooth is switched on
4 Enable SAVED (true)
+ the stack is begun
+ bluetoothd runs
4 bluez service registered org.bluez
$ sdptool browse local
# What to delete is not known.
$ sdptool del
4 del headset profile 256
$ hciconfig hci0 sspmode 0
2 set legacy mode (hciconfig hci0 sspmode 0) 768
in BluetoothManager.cpp bluetoothobj void BluetoothManager::serviceBluezRegistered(const QString&)
$ hciconfig hci0 lm master,accept
2 set lm master,accept 256
+ the agent is asked for
& agent *
$ hciconfig hci0 piscan
2 error executing  hciconfig hci0 piscan
$ hciconfig hci0 sspmode 0
2 set legacy mode (hciconfig hci0 sspmode 0) 768
in BluetoothManager.cpp bluetoothobj bool BluetoothManager::startAgent()
4 agent started and wait registration
@ BluetoothOn true
nothing else

== Bluetooth stays off without its daemon or its agent, and can be switched on later
+ the service runs with Bluetooth off
- fault bluetoothd missing
+ Bluetooth is switched on
4 Enable SAVED (true)
+ the stack is begun
1 error starting bluez
+ the stack that is off goes down
+ nobody is played
nothing else
= 0 true false 7351
+ all is well again
- fault agent missing
+ Bluetooth is switched on
4 Enable (true) not saved because already saved
+ the stack is begun
+ bluetoothd runs
+ BlueZ has come
+ the agent is asked for
2 error starting agent
2 error starting agent
+ the stack goes down without an agent
nothing else
= 0 true false 7351
+ all is well again
+ Bluetooth is switched on
4 Enable (true) not saved because already saved
+ the stack comes up
nothing else

== Bluetooth is given up when its daemon does not get onto the bus within 15 s
with fault bluetoothd no-name
4 bluez started and wait registration
after 14.2 to 25 s
1 bluez service timeout !!!!!!!!!!!!!! 
+ the stack goes down without an agent
= 0 true false 7351
# The next start is under way, and cannot be disturbed.
+ Bluetooth is switched on
4 Enable (true) not saved because already saved
+ the stack is begun
+ bluetoothd runs
nothing else
- {enable|disable}
4 [DBUS|Internal] SetEnabled(true) requested
2 [DBUS|Internal] SetEnabled(true) requested but there is already one in progress action
! SetEnabled 1
4 [DBUS|Internal] SetEnabled(false) requested
2 [DBUS|Internal] SetEnabled(false) requested but there is already one in progress action
! SetEnabled 1
nothing else
= 0 true false 7351
settings bt-enable=

== Bluetooth comes back a second after its daemon ended, or when it is switched on before
+ Bluetooth is on
- kill bluetoothd SEGV
2 bluezDown down * crash
4 restart
after 0.8 to 5 s
+ the stack is begun
+ Bluetooth is on
# It comes back though it was switched off meanwhile.
- kill bluetoothd
4 restart
+ nobody is played
- disable
4 [DBUS|Internal] SetEnabled(false) requested
4 Saving bluetooth configuration
4 Enable SAVED (false)
4 [DBUS|Internal] SetEnabled(false) requested but nothing to do
! SetEnabled 0
+ the stack comes up
nothing else
= 0 false true 7351
- kill bluetoothd
4 restart
+ nobody is played
+ Bluetooth is switched on
4 Enable SAVED (true)
+ the stack comes up
4 startStartupSequence requested
2 startStartupSequence bluez already running
nothing else
= 0 true true 7351

== A daemon that ends again and again is started again and again
with fault bluetoothd exit=3 times=3
2 bluezDown down 3 normal
4 restart
- disable => 1
2 bluezDown down 3 normal
4 restart
2 bluezDown down 3 normal
4 restart
--
# The time-out of a start that was cut short has stayed till then.
+ the stack is begun
+ bluetoothd runs
4 startStartupSequence programming error timer already active
+ BlueZ and the agent have come
nothing else
= 0 true true 7351

== Children that do not obey are killed after 2 s
with fault agent ignore-term
with fault bluetoothd ignore-term
with fault pulseaudio ignore-term
+ anna is streaming
+ Bluetooth is switched off
4 forceSyncDown
$ hciconfig hci0 noscan
4 forceSyncDown terminate agent
after 1.8 to 8 s
4 forceSyncDown kill agent
4 forceSyncDown terminate bluez
after 1.8 to 8 s
4 forceSyncDown kill bluez
$ hciconfig hci0 down
+ the sound ends
# What is heard ends before others may play.
after 1 to 8 s
+ nobody is played
@ BluetoothOn false
nothing else
= 0 false false 7351
- service stop
everything ends
