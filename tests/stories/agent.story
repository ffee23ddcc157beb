# The pairing agent is started again whenever it has gone.

== An agent that ends is started again at once, as often as it takes, and Bluetooth stays on
with fault agent exit=5 times=12
4 agent down 5 normal
2 restart agent ok
< Adapter.RegisterAgent *
--
- kill agent
4 agent down * crash
$ hciconfig hci0 noscan
+ the agent comes back
< Adapter.RegisterAgent *
= 0 true true 7351

== An agent that is missing is tried every 10 s, also when Bluetooth is switched off meanwhile
+ the agent is taken away
after 9.4 to 20 s
4 start agent agent with parameters *
2 error starting agent
2 not possible to restart agent
= 0 true true 7351
- disable => 0
- fault clear agent
- fault agent hang
--
after 9.4 to 20 s
+ the agent comes back
= 0 false false 7351
# Nothing is left of the attempts.
- enable
@ BluetoothOn true
never 4 startStartupSequence programming error*
- service stop
everything ends

== An attempt that is still to come is forgotten when Bluetooth is switched on again
+ the agent is taken away
- disable => 0
- fault clear agent
--
+ Bluetooth is switched on
4 Enable SAVED (true)
+ the stack is begun
+ bluetoothd runs
4 startStartupSequence programming error timer already active
+ BlueZ and the agent have come
nothing else
# Longer than the attempt would take, a phone is silent.
- phone add anna trusted
+ anna comes
- phone anna pause
4 CONNECTED BUT NOT PLAYING
never 2 restart agent ok
