# What the service makes of its settings and of the variables that override them, and what it saves.

== Settings are used as far as they are valid ({time}, {enable}, {stored})
for time, enable, variable, enabled, stored, pin, value, mode, saved, then
| 100 | -7 | 0 | true | 0042 | 0042 | 1 | 0 | (0042) not saved* | + Bluetooth is asked for
| 10000 | 0 | yes | false | 12345 | 7351 | 1 | 1 | SAVED (7351) | nothing else of 1 2 4 9
| 5000 | 1 | | true | 7351 | 7351 | -1 | 0 | (7351) not saved* | + Bluetooth is asked for
with setting bt-timeout-reconnect-1 {time}
with setting bt-enable {enable}
with environment ULMO_BT_ENABLE={variable}
with setting bt-pid {stored}
with setting bt-disable-legacy {value}
4 Starting Bluetooth Manager...
4 reconnection timeout {time}
4 legacy mode {mode}
+ the settings are told
nothing else of 1 2 9
{then}
- platform shutdown
# What is in the store already is not written, and what was written is known from then on.
4 Enable ({enabled}) not saved because already saved
4 PID {saved}
settings bt-pid={pin}
- platform shutdown
4 PID ({pin}) not saved because already saved

== Variables override settings, and a time out of bounds is brought into them ({time})
for time, limit, used, enable, variable, stored, forced, pin, number, force, latency
| 99 | too low | 100 | 1 | TRUE | 1234 | 1234 | 1234 | 0 | 4 force ULMO_BT_LATENCY=0 | 0
| 10001 | too big | 10000 | 0 | 1 | 0042 | 12a4 | 7351 | 0x20 | | -5
with setting bt-timeout-reconnect-1 {time}
with setting bt-enable {enable}
with environment ULMO_BT_ENABLE={variable}
with setting bt-pid {stored}
with environment ULMO_BT_PID={forced}
with setting bt-latency -5
with environment ULMO_BT_LATENCY={number}
4 Starting Bluetooth Manager...
2 {limit} reconnect timeout
4 reconnection timeout {used}
4 force enable for ULMO_BT_ENABLE
4 force PID for ULMO_BT_PID
4 legacy mode 0
{force}
+ the settings are told
+ Bluetooth is asked for
4 Enable SAVED (true)
4 startStartupSequence requested
nothing else of 1 2
@ BluetoothOn true
= 0 true true {pin}
# What is in the store already is not written, and what was written is known from then on.
- platform shutdown
4 PID SAVED ({pin})
settings bt-pid={pin}
- platform shutdown
4 PID ({pin}) not saved because already saved
- phone add anna trusted
- phone anna connect
+ anna is linked

== The unit's Bluetooth name is made of nickname and serial number ({name})
for nickname, number, name
| setting OTHER/Nickname x | setting OTHER/SerialNumber x | Ulmo_unknown
| setting GENERAL/Nickname | setting GENERAL/SerialNumber AB 12-34 | Ulmo_AB_1234
| setting GENERAL/Nickname My Küche  #2 | setting GENERAL/SerialNumber AB 12-34 | My_Kche__2
with environment BLUEZHOSTNAME=inherited
with {nickname}
with {number}
~ hci0 Adapter.Name {name}

== What cannot be saved is told, tried again, and used all the same
with environment ULMO_BT_ENABLE=1
# In whatever script.
with environment ULMO_BT_PID=١٢٣٤
with environment ULMO_SETTINGS=/proc/nowhere/settings.ini
4 reconnection timeout 5000
2 settings file /proc/nowhere/settings.ini not written: *
2 Error saving Enable
& agent * ١٢٣٤
+ Bluetooth is on
- platform shutdown
2 Error saving Enable
2 Error saving Pid
- platform shutdown
2 Error saving Enable
2 Error saving Pid
= 0 true true ١٢٣٤
- disable
2 Error saving Enable
