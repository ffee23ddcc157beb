# What the service makes of its settings and of the variables that override them, and what it saves.

== The time until a phone is connected again is from 100 ms to 10 s ({value})
for value, warning, used
| 99 | 2 too low reconnect timeout | 100
| 100 | | 100
| 10000 | | 10000
| 10001 | 2 too big reconnect timeout | 10000
with setting bt-enable 0
with setting bt-timeout-reconnect-1 {value}
4 Starting Bluetooth Manager...
{warning}
4 reconnection timeout {used}
4 legacy mode 0
+ the settings are told
nothing else of 1 2 4 9

== Bluetooth is switched on when the setting or the variable says so ({value}, {variable})
for value, variable, force, enabled, then, saved
| -7 | | | true | + Bluetooth is asked for | 4 Enable (true) not saved because already saved
| 0 | 1 | 4 force enable for ULMO_BT_ENABLE | true | + Bluetooth is asked for | 4 Enable SAVED (true)
| 1 | TRUE | 4 force enable for ULMO_BT_ENABLE | true | + Bluetooth is asked for | 4 Enable SAVED (true)
| 1 | 0 | | true | + Bluetooth is asked for | 4 Enable (true) not saved because already saved
| 0 | yes | | false | nothing else of 1 2 4 9 |
with setting bt-enable {value}
with environment ULMO_BT_ENABLE={variable}
4 Starting Bluetooth Manager...
4 reconnection timeout 100
{force}
4 legacy mode 0
+ the settings are told
{then}
{saved}

== The PIN is four digits, from the setting or the variable ({value}, {variable})
for value, variable, force, pin, saved
| 0042 | | | 0042 | 4 PID (0042) not saved because already saved
| 12345 | | | 7351 | 4 PID SAVED (7351)
| 1234 | 1234 | 4 force PID for ULMO_BT_PID | 1234 | 4 PID SAVED (1234)
| 0042 | 12a4 | 4 force PID for ULMO_BT_PID | 7351 | 4 PID SAVED (7351)
with setting bt-enable 0
with setting bt-pid {value}
with environment ULMO_BT_PID={variable}
4 Starting Bluetooth Manager...
4 reconnection timeout 100
{force}
4 legacy mode 0
+ the settings are told
nothing else of 1 2 4 9
= 0 false false {pin}
# What is in the store already is not written, and what was written is known from then on.
- platform shutdown
{saved}
settings bt-pid={pin}
- platform shutdown
4 PID ({pin}) not saved because already saved

== Any number is a latency, but only a decimal one is forced ({variable})
for variable, force, latency, enabled
| 0x20 | | -5 | true
| 0 | 4 force ULMO_BT_LATENCY=0 | 0 | true
with setting bt-latency -5
with environment ULMO_BT_LATENCY={variable}
4 legacy mode 0
{force}
+ the settings are told
+ there is anna
- phone anna connect
+ anna is linked
@ PlayBluetooth

== Legacy pairing is switched off only for the standard PIN ({stored}, {value})
for stored, pin, value, mode
| 7351 | 7351 | 3 | 1
| 7351 | 7351 | -1 | 0
| 1234 | 1234 | 1 | 0
| 123 | 7351 | 1 | 1
with setting bt-disable-legacy {value}
with setting bt-pid {stored}
4 legacy mode {mode}
+ the stack comes up

== The unit's Bluetooth name is made of nickname and serial number ({name})
for nickname, number, name
| no setting GENERAL/Nickname | no setting GENERAL/SerialNumber | Ulmo_unknown
| setting GENERAL/Nickname | setting GENERAL/SerialNumber AB 12-34 | Ulmo_AB_1234
| setting GENERAL/Nickname My Küche  #2 | setting GENERAL/SerialNumber AB 12-34 | My_Kche__2
with environment BLUEZHOSTNAME=inherited
with {nickname}
with {number}
+ Bluetooth is on
busctl call org.bluez {adapter} org.bluez.Adapter GetProperties => *"Name" s "{name}"*

== What cannot be saved is told, tried again, and used all the same
with environment ULMO_BT_ENABLE=1
with environment ULMO_BT_PID=1234
with environment ULMO_SETTINGS=/proc/nowhere/settings.ini
2 Error saving Enable
+ Bluetooth is on
- platform shutdown
2 Error saving Enable
2 Error saving Pid
- platform shutdown
2 Error saving Enable
2 Error saving Pid
= 0 true true 1234
