# What people type at the board's shell, what comes of it at the service, and what they read.

== Each command asks for one thing, and tells what came of it
+ Bluetooth is on
# The service takes both for set, and would not send them to her.
shell {inside} ulmoctl volume 40% => It is remembered: no phone plays; *
shell {inside} ulmoctl mute --json => {"command":"mute",*"status":0,"applied":false}
- phone add berta known
- phone add anna trusted "name=An	na \"A\""
+ anna comes
- phone anna play
--
# A name may not tell the terminal what to do.
shell ulmoctl status => *enabled, on\nPIN   *7351\nPhone *An?na "A" (00:1A:7D:DA:71:13), playing
shell ulmoctl status --json => {"command":"status","exitStatus":0,"status":0,"enabled":true,*}
shell ulmoctl status --json => *,"on":true,"pin":"7351","phone":"00:1A:7D:DA:71:13","name":*}
shell ulmoctl status --json => *:13","name":"An\u0009na \"A\"","playing":true}
shell {inside} ulmoctl volume 40 => The volume is set.
$ pactl set-source-output-volume 0 39%
$ pactl set-source-output-volume 0 40%
shell {inside} ulmoctl mute --json => *"status":0,"applied":true}
$ pactl set-source-output-mute 0 1
shell ulmoctl mute => The sound is muted. If no phone plays, it is remembered: *
$ pactl set-source-output-mute 0 0
$ pactl set-source-output-mute 0 1
shell {inside} ulmoctl unmute => The sound is not muted.
$ pactl set-source-output-mute 0 0
never $ pactl set-source-output-mute 0 1
- fault pactl:volume exit=127
- fault pactl:mute crash
shell ulmoctl volume 7 --json => *:1,"status":32512,"error":"pactl failed: exit status 127"}\n(1)
shell ulmoctl mute => ulmoctl: pactl failed: exit status 139\n(1)
- phone anna pause
shell ulmoctl status => *Phone       An?na "A" (00:1A:7D:DA:71:13), not playing
shell ulmoctl disconnect => The device has been told to disconnect.
~ anna Device.Connected false
shell ulmoctl disconnect => ulmoctl: no device is connected\n(1)
shell ulmoctl status --json => *,"phone":null}
- fault bluez:Manager.DefaultAdapter error times=1
shell ulmoctl status => Bluetooth   enabled, on\nPIN         7351
shell ulmoctl forget 00:1a:7d:da:71:14 => BlueZ has been told to forget 00:1A:7D:DA:71:14.
> Adapter.RemoveDevice hci0 berta
shell ulmoctl --all forget => BlueZ has been told to forget every device.
> Adapter.RemoveDevice hci0 anna
shell ulmoctl pin 12%1 => ulmoctl: the PIN must be four digits\n(1)
shell ulmoctl pin 1234 => The PIN is 1234.
+ Bluetooth is on
shell ulmoctl off => Bluetooth is off.
shell ulmoctl forget --all => ulmoctl: BlueZ cannot be asked, is Bluetooth on?\n(1)
shell ulmoctl status => Bluetooth   disabled, off\nPIN         1234

== A start that is awaited is told at its end
+ Bluetooth is on
# A switch-off that was asked for before tells nothing of the start.
- service kill STOP
shell& ulmoctl off
? SetEnabled false
shell& ulmoctl on --wait
? SetEnabled true
- service kill CONT
ends Bluetooth is on.
shell ulmoctl on => Bluetooth is on.
- disable
- fault bluetoothd missing
shell ulmoctl on --wait => ulmoctl: Bluetooth did not come on\nThe service's log tells why: *(1)
+ all is well again
- fault bluetoothd delay=4000
shell ulmoctl on --wait --timeout 1 => ulmoctl: Bluetooth is not on after 1 seconds\n*(4)
+ Bluetooth is on
- disable
- fault bluetoothd no-name
shell& ulmoctl on --wait
! GetStatus *
- service kill KILL
ends ulmoctl: the service ended before Bluetooth was on\n*(3)

== What is known of a start within a second is told, and what to do where nobody answers
+ the service runs with Bluetooth off
- fault bluetoothd no-name
shell ulmoctl on --json => {"command":"on","exitStatus":0,"status":0,"on":false}
shell ulmoctl off => ulmoctl: a start or stop is in progress, try again in a moment\n(1)
- service kill STOP
shell ulmoctl status --timeout 1 => ulmoctl: no answer within 1 seconds\nThe service may *(4)
shell& ulmoctl off
? SetEnabled false
- service kill KILL
ends ulmoctl: the service ended before it answered\nSee whether bluetoothmanager runs, *(3)
shell ulmoctl off => ulmoctl: the service is not running: *\nSee whether bluetoothmanager runs, *(3)
- bus session kill
shell ulmoctl off => ulmoctl: no bus at unix:*\nThis is the address in DBUS_SESSION_BUS_ADDRESS*(3)
shell DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/0/bus ulmoctl off => ulmoctl: no bus at unix:path=/run/ulmo/bus *(3)

== What the service says, and its coming and going, are told as they come, until nobody reads it
+ the service runs with Bluetooth off
shell& exec ulmoctl watch > >(sed -u '/not running/q'; kill -INT $$)
says 20*-*-* *:*:*.*  Service                running
- service kill KILL
says 20*-*-* *:*:*.*  Service                not running
ends
shell& TZ=TEST-05:30 ulmoctl watch --json
says {"time":"20*-*-*T*:*:*.*+05:30","event":"Service","running":false}
- service start
says {*,"event":"Service","running":true}
- pin 1234
says {*,"event":"BluetoothPidChanged","pin":"1234"}
- enable
says {*,"event":"BluetoothOn","on":true}
- platform suspend
says {*,"event":"DisconnectAudioDevice"}
shell ulmoctl watch | head -n 1 => 20*  Service                running
shell ulmoctl {watch|--help} >/dev/full => ulmoctl: cannot write: No space left on device\n(1)
shell& ulmoctl watch
says *running
- bus session kill
ends ulmoctl: the bus is gone\n(3)

== What can never make sense is a mistake, and what can is in help, manual and completion
with service stopped
shell ulmoctl start => ulmoctl: unknown command 'start'\nTry 'ulmoctl --help' *(2)
shell ulmoctl --json => ulmoctl: no command\n*(2)
shell ulmoctl off --wait => ulmoctl: 'off' does not take --wait\n*(2)
shell ulmoctl help nonsense => ulmoctl: unknown command 'nonsense'\n*(2)
shell ulmoctl watch --timeout 5 => ulmoctl: 'watch' does not take --timeout\n*(2)
shell ulmoctl on --timeout=0 => ulmoctl: --timeout takes seconds, from 1 to 3600\n*(2)
shell ulmoctl forget => ulmoctl: 'forget' needs the address of a device, or --all\n*(2)
shell ulmoctl forget --all 00:11:22:AA:BB:CC => ulmoctl: too many arguments: '00:11:22:*(2)
shell ulmoctl forget 00:11:22:AA:BB => ulmoctl: '00:11:22:AA:BB' is no address such as *(2)
shell ulmoctl volume {-5|101|-- %} => ulmoctl: the volume must be a number from 0 to 100\n*(2)
# A terminal has 80 columns and 24 lines.
shell ulmoctl help | awk 'length > 79 || NR > 23'
shell ulmoctl help | grep -oP '^  \w+' | grep -vwFf <(grep -oP '\w+' ../../docs/ulmoctl.1) => (1)
shell ./offer o => on off
shell ./offer --json un => unmute
shell ./offer on - => --wait --json --timeout
shell ./offer forget --a => --all
shell ./offer watch - => --json
shell ./offer pin '' => --json --timeout
shell ./offer - => --json --timeout --help --version
shell ./offer --timeout = 5 on --w => --wait
