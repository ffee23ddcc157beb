# Suspend, shutdown and reboot drop the connection and keep the stack; the supervisor's end is the
# service's end. Only the platform itself counts.

== The phone that is {state} is dropped at {event}, and the stack stays
for event, state, log, saved, ends
| suspend | polling | 2 [!] ULMO IS SUSPENDING | | + the sound that was to come ends
| shutdown | playing | 2 [!] ULMO IS SHUTTING DOWN: save status | + all is saved | + the sound ends
| reboot | accepted | 2 [!] ULMO IS REBOOTING: save status | + all is saved |
+ anna is {state}
- platform {event} power key
{log}
{saved}
4 Disconnect {anna}
> Device.Disconnect anna
+ anna is let go
{ends}
+ nobody is played
+ nobody is played
nothing else of 1 2 9 $ & > @
= 0 true true 7351

== Settings are saved at {event}, unless the product restores them
for event, log
| shutdown | 2 [!] ULMO IS SHUTTING DOWN: save status
| reboot | 2 [!] ULMO IS REBOOTING: save status
with setting bt-pid 1111
# Which is not in the store.
with environment ULMO_BT_PID=4711
+ Bluetooth is on
- platform {event} restore
{log}
+ nobody is played
nothing else
settings bt-pid=1111
- platform {event} Restore
{log}
4 Saving bluetooth configuration
4 Enable (true) not saved because already saved
4 PID SAVED (4711)
+ nobody is played
nothing else
settings bt-pid=4711

== Without a phone a suspend only stops the sound, and tells the next phone apart
+ there is anna
- phone add berta trusted
- signal {anna} org.bluez.AudioSource.PropertyChanged s:State v:s:disconnected
--
- platform suspend
2 [!] ULMO IS SUSPENDING
+ nobody is played
nothing else
# What was seen of anna is forgotten.
+ berta comes

== The supervisor's end is the service's end, whatever a phone is at
+ anna is polling
- platform supervisor-end
4 BluetoothManager close for supervisor end
4 Gracefully stop BluetoothManager Adapter...
4 Gracefully stop BluetoothManager...
+ the stack goes down
+ the sound that was to come ends
+ the service has stopped
never > Device.*
everything ends

== A stranger's events are nobody's
+ anna is playing
- platform spoof-{suspend|shutdown|reboot|supervisor-end} power key
nothing else
