"""What the product can be told, by people at the prompt and by tests alike: lines of words. They
come through a socket with one JSON object per line:

  {"tell": "phone anna play"}   {"ok": true, "text": "...", "values": [...]} when it is done
  {"complete": "phone an"}      {"words": ["anna"]}
  {"follow": true}              every entry of the journal, from the first on
"""

from __future__ import annotations

import json
import re
import shlex
import signal
import socket
import textwrap
from typing import Any, Callable, Iterable, NamedTuple

from bluez.bluez import OPTIONS, BlueZ
from bluez.phone import VERBS
from core import loop
from core.bus import Reply
from core.faults import PROGRAMS, TARGETS, behaviours_of
from core.journal import Journal, to_json
from core.words import Refused, typed, unknown_word
from virtualproduct import VirtualProduct

SERVICE = "com.orbitalis.ulmo.bluetoothmanager"
OBJECT = "/com/orbitalis/ulmo/bluetoothmanager/bluetoothobj"
INTERFACE = "com.orbitalis.ulmo.bluetoothinterface"
EVENTS = {"suspend": "PowerSuspend", "shutdown": "PowerShutdown", "reboot": "PowerReboot",
          "supervisor-end": "SupervisorShutdown"}
SIGNALS = ("HUP", "INT", "QUIT", "ABRT", "KILL", "SEGV", "TERM", "STOP", "CONT", "USR1")

BUSY = "a start or stop of Bluetooth is in progress"
NO_BLUEZ = "BlueZ cannot be asked, is Bluetooth on?"
#: The methods that have a command: what is called, and what status 1 means.
METHODS = {"enable": ("SetEnabled b:true", BUSY), "disable": ("SetEnabled b:false", BUSY),
           "pin": ("SetPid s:{}", "the PIN must be four digits"),
           "volume": ("SetVolume i:{}", ""), "mute": ("SetMute i:{}", ""),
           "disconnect": ("DisconnectDevice", "no phone is connected"),
           "forget": ("RemoveDevice s:{}", NO_BLUEZ), "forget all": ("RemoveAllDevices", NO_BLUEZ)}


def described(usage: str, help: str) -> str:
    """Two columns of a terminal of 80."""
    text = textwrap.fill(help, 79, initial_indent=" " * 30, subsequent_indent=" " * 30,
                         break_on_hyphens=False)
    return usage.ljust(30) + text[30:] if len(usage) < 30 else f"{usage}\n{text}"


#: What there is to say of each topic beside its commands.
TOPICS = {
    "service": "The service, over D-Bus and as a process",
    "phones": "\n".join([
        "Phones", described("  phone add NAME [OPTION...]", "another one is around"),
        *(described(f"    {option}", help) for option, help in OPTIONS.items()),
        "  phone NAME VERB",
        *(described(f"    {name} {verb.argument}", verb.help) for name, verb in VERBS.items())]),
    "faults": """\
Of bluetoothd agent hciconfig sdptool modprobe connmanctl pulseaudio pactl
  fault PROGRAM[:ARGUMENT] exit=STATUS|hang|crash|ignore-term|delay=MS
        at each start with ARGUMENT in the command line
  fault PROGRAM missing       as if it were not installed
  fault bluetoothd no-name|adapter-delay=MS
BlueZ and the sound manager
  fault bluez:Interface.Method error[=NAME]|delay=MS|never
  fault soundmanager refuse[=MS]|delay=MS|never|absent
Any of them that counts
  ... [times=N] [after=N]     the next N times only, after N that go well
  fault clear [PROGRAM|bluez|soundmanager]""",
    "bluez": "BlueZ",
    "product": "The rest of the product"}

Words = list[str]
#: Answers a line, with the parameters of Control.tell.finish.
Done = Callable[..., None]
LATER = object()


class Command(NamedTuple):
    topic: str
    #: Alternatives for each word. Those in brackets may be left out; what is in capitals is a list,
    #: or may be anything.
    parameters: str
    help: str
    #: Returns its answer, if it has one, or LATER when Done gets that. None: only at the prompt.
    act: Callable[[Control, Words, Done], object] | None


class Control:
    def __init__(self, product: VirtualProduct, path: str) -> None:
        """Listens at this path."""
        self._product = product
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.bind(path)
        self._socket.listen()
        loop.watch(self._socket,
                   lambda: Client(self, product.journal, self._socket.accept()[0]))

    def tell(self, line: str, send: Callable[[dict], None]) -> None:
        """Carries out a line, which then stands in the journal. send gets the answer, now or
        later."""
        journal = self._product.journal
        kind = "fault" if line.split()[:1] == ["fault"] else "control"
        journal.record("control", kind, "- " + line.strip())

        def finish(text: str = "", ok: bool = True, values: Iterable[Any] = ()) -> None:
            if not ok:
                journal.record("control", "error", "- error: " + text)
            send({"ok": ok, "text": text, "values": values})
        try:
            words = self._words(line)
            text = COMMANDS[words[0]].act(self, words, finish)
        except Refused as refusal:
            finish(str(refusal), ok=False)
            return
        if text is not LATER:
            finish(str(text or ""))

    def _words(self, line: str) -> Words:
        """Those of the line, which fit the table of commands."""
        try:
            words = shlex.split(line)
        except ValueError as error:
            raise Refused("a quote is not closed") from error
        name = words[0] if words else ""
        if name in COMMANDS and words[-1] == "help":
            return ["help", name]
        if name not in COMMANDS:
            raise unknown_word("command", name, COMMANDS)
        if not COMMANDS[name].act:
            raise Refused(f"{name} works at the prompt only")
        parameters = COMMANDS[name].parameters
        places = parameters.split()
        if (len(words) <= len(places) - parameters.count("[")
                or len(words) > len(places) + 1 and not parameters.endswith("...]")):
            raise Refused(f"usage: {name} {parameters}".strip() + f'; "help {name}" says more')
        for number, word in enumerate(words[1:], 1):
            what, known, is_free = self._place_after(words[:number])
            if not is_free and word not in known:
                raise unknown_word(what, word, known)
        return words

    def _place_after(self, words: Words) -> tuple[str, Words, bool]:
        """What comes next, what is known of that, and whether it may be something else."""
        first = words[1] if len(words) > 1 else ""
        lists: dict[str, Iterable[str]] = {
            "COMMAND": COMMANDS, "TOPIC": TOPICS, "SIGNAL": SIGNALS,
            "PHONE": self._product.bluez.phones, "VERB": () if first == "add" else VERBS,
            "OPTION": OPTIONS if first == "add" else (),
            "PROGRAM": PROGRAMS, "TARGET": TARGETS,
            "BEHAVIOUR": TARGETS if first == "clear" else behaviours_of(first),
            "EVENT": (*EVENTS, *(f"spoof-{event}" for event in EVENTS))}
        alternatives = "COMMAND"
        if words:
            command = COMMANDS.get(words[0])
            places = command.parameters.split() if command else []
            if command and command.parameters.endswith("...]"):
                places += places[-1:] * len(words)
            alternatives = "".join(places[len(words) - 1:len(words)])
        what, is_free = " ".join([*words[:1], "command"]), "..." in alternatives
        known: list[str] = []
        for word in re.sub(r"[][.]", "", alternatives).split("|"):
            if word in lists:
                what = word.lower()
                known += lists[word]
            elif word != word.upper():
                known.append(word)
            else:
                is_free = True
        return what, known, is_free or "bluez:" in known

    def complete(self, line: str) -> Words:
        """What the last word of the unfinished line may become."""
        *words, begun = (line + " ").split(" ")[:-1] if not line.endswith(" ") else line.split(" ")
        _, known, _ = self._place_after([word for word in words if word])
        # Of "exit=STATUS" all that is no example.
        fitting = (re.sub(r"\[?=.*", "=", word) for word in known)
        return sorted(word for word in fitting if word.startswith(begun))

    # ---- the service

    def _status(self, _: Words, done: Done) -> object:
        return self._call(
            ["call", "GetStatus"], done, lambda status, enabled, is_on, pin:
                f"Bluetooth is {'on' if is_on else 'off'} and "
                f"{'enabled' if enabled else 'disabled'}; the PIN is {pin}")

    def _call(self, words: Words, done: Done,
              describe: Callable[..., str] = lambda *values: to_json(values)) -> object:
        signature, values = typed(words[2:])
        method = words[1] if "." in words[1] else f"{INTERFACE}.{words[1]}"

        def answered(reply: Reply) -> None:
            if reply.error:
                done(f"{reply.error}: {reply.text}", ok=False)
            else:
                done(describe(*reply.values), values=reply.values)
        self._bus("session", "caller").call(SERVICE, OBJECT, method, signature, values, answered)
        return LATER

    def _call_short(self, words: Words, done: Done) -> object:
        name, *value = words
        if name in ("volume", "mute") and not re.fullmatch("-?[0-9]+", value[0]):
            raise Refused(f"{name} wants a number")
        method, refusal = METHODS.get(" ".join(words)) or METHODS[name]
        meanings = {0: "done, or nothing to do", 1: refusal}
        return self._call(
            ["call", *method.format(*value).split(" ", 1)], done, lambda status:
                f"{status}: {meanings.get(status) or 'the wait status of what failed'}")

    def _service(self, words: Words, done: Done) -> object:
        service, what = self._product.service, words[1]
        if what == "kill":
            service.kill(signal_number(words))
        elif what == "start" or what == "restart" and not service.is_running:
            service.start()
        else:
            service.kill(signal.SIGTERM)
            service.when_ended.append(lambda how: done(
                f"it has ended {how}" if what == "stop" else service.start() or ""))
            return LATER
        return None

    # ---- phones, programs and their faults

    def _timescale(self, words: Words, _: Done) -> None:
        if not re.fullmatch(r"\d*\.?\d+", words[1]) or not float(words[1]):
            raise Refused("timescale wants a number above 0")
        loop.time_scale = float(words[1])

    def _spoof(self, words: Words, _: Done) -> None:
        self._bus("system", "spoofer").emit(words[1], words[2], *typed(words[3:]))

    def _kill(self, words: Words, _: Done) -> None:
        self._product.programs.kill(words[1], signal_number(words))

    def _fault(self, words: Words, _: Done) -> None:
        if words[1] == "clear":
            self._product.faults.clear("".join(words[2:3]))
        else:
            self._product.faults.add(words[1:])
        self._product.programs.update_presence()
        self._product.sound_manager.update_presence()

    # ---- the rest of the product

    def _platform(self, words: Words, _: Done) -> None:
        event = words[1].removeprefix("spoof-")
        sender = self._bus("session", "platform" if event == words[1] else "stranger")
        reason = [] if event == "supervisor-end" else [" ".join(words[2:])]
        sender.emit("/com/orbitalis/ulmo/platform",
                    f"com.orbitalis.ulmo.platformevents.{EVENTS[event]}", "s" * len(reason), reason)

    def _bus_command(self, words: Words, _: Done) -> None:
        (self._product.kill_bus if words[2] == "kill" else self._product.start_bus)(words[1])

    def _bus(self, bus: str, name: str):
        try:
            return self._product.buses.connection(bus, name)
        except OSError as error:
            raise Refused(f"there is no {bus} bus") from error

    def _journal(self, words: Words, _: Done) -> str:
        count = words[1] if words[1:] else "20"
        if not count.isdecimal() or int(count) == 0:
            raise Refused("journal wants the number of entries")
        entries = map(json.loads, self._product.journal.contents().splitlines()[-int(count):])
        return "\n".join(f"{entry['time']:9.3f} {entry['line']}" for entry in entries)

    def _help(self, words: Words, _: Done) -> str:
        wanted = words[1] if words[1:] else "help"
        topic = COMMANDS[wanted].topic if wanted in COMMANDS else wanted
        if wanted != "help":
            return "\n".join([TOPICS[topic], *(
                described(f"  {name} {command.parameters}", command.help)
                for name, command in COMMANDS.items() if command.topic == topic and command.help)])
        return "\n".join(
            ['The product can be told this; "help TOPIC" or "help COMMAND" says more.']
            + [textwrap.fill(" ".join(name for name, command in COMMANDS.items()
                                      if command.topic == topic), 79,
                             initial_indent=f"  {topic:8}", subsequent_indent=" " * 10)
               for topic in TOPICS])


def of_bluez(act: Callable[[BlueZ, Words], object]) -> Callable[[Control, Words, Done], object]:
    return lambda control, words, done: act(control._product.bluez, words[1:])


def signal_number(words: Words) -> int:
    """Of the signal in the third word, or of KILL."""
    return signal.Signals["SIG" + (words[2] if words[2:] else "KILL")]


COMMANDS = {
    "status": Command("service", "", "what it says of itself", Control._status),
    "enable": Command("service", "", "Bluetooth on", Control._call_short),
    "disable": Command("service", "", "Bluetooth off", Control._call_short),
    "pin": Command("service", "PIN", "that for pairing", Control._call_short),
    "volume": Command("service", "N", "0 to 100", Control._call_short),
    "mute": Command("service", "N", "1 or 0", Control._call_short),
    "disconnect": Command("service", "", "the connected phone", Control._call_short),
    "forget": Command("service", "all|ADDRESS", "the paired phone, or all of them",
                      Control._call_short),
    "call": Command("service", "METHOD [TYPE:VALUE...]",
                    "any method; types s i u b o as v, as in v:b:true", Control._call),
    "service": Command("service", "start|stop|restart|kill [SIGNAL]",
                       "the process; KILL without a signal", Control._service),
    "phone": Command("phones", "add|PHONE VERB|NAME [OPTION...]", "", of_bluez(BlueZ.tell_phone)),
    "phones": Command("phones", "", "all of them", of_bluez(BlueZ.describe_phones)),
    "fault": Command("faults",
                     "clear|bluez:|TARGET [BEHAVIOUR...] [times=N|after=N...]", "", Control._fault),
    "kill": Command("faults", "PROGRAM [SIGNAL]", "KILL without one", Control._kill),
    "backend": Command("bluez", "mgmt|hci [other]",
                       "the order of some signals, and the rarer order",
                       of_bluez(BlueZ.set_backend)),
    "timescale": Command("bluez", "F", "factor of the timers of BlueZ and of phones",
                         Control._timescale),
    "signal": Command("bluez", "PATH INTERFACE.SIGNAL [TYPE:VALUE...]",
                      "from BlueZ, which means nothing by it", of_bluez(BlueZ.send_signal)),
    "spoof": Command("bluez", "PATH INTERFACE.SIGNAL [TYPE:VALUE...]",
                     "the same from a stranger", Control._spoof),
    "platform": Command("product", "EVENT [REASON...]",
                        "suspend, shutdown, reboot, supervisor-end; spoof-suspend and so on: "
                        "the same from a stranger", Control._platform),
    "bus": Command("product", "session|system kill|start",
                   "only the product's own services get back to it", Control._bus_command),
    "journal": Command("product", "[N]", "the last N entries", Control._journal),
    "note": Command("product", "[TEXT...]", "for the journal alone", lambda *_: None),
    "help": Command("product", "[TOPIC|COMMAND]", "", Control._help),
    "quit": Command("product", "", "ends all", lambda control, *_: control._product.quit()),
    "follow": Command("product", "", "the journal as it goes on", None),
    "unfollow": Command("product", "", "no more of it", None),
    "draw": Command("product", "", "timeline and sound, as far as it has come", None),
    "ulmoctl": Command("product", "[...]", "this program, on the product's buses", None),
    "busctl": Command("product", "[...]", "the same", None)}


class Client:
    """Somebody at the control socket."""

    def __init__(self, control: Control, journal: Journal, connection: socket.socket) -> None:
        self._control = control
        self._journal = journal
        self._socket = connection
        self._received = b""
        self._to_send = bytearray()
        connection.setblocking(False)
        loop.watch(connection, self._read)

    def _read(self) -> None:
        try:
            data = self._socket.recv(1 << 16)
        except OSError:
            data = b""
        *lines, self._received = (self._received + data).split(b"\n")
        for line in lines:
            self._take(json.loads(line))
        if not data:
            self._close()

    def _close(self) -> None:
        if self._send in self._journal.listeners:
            self._journal.listeners.remove(self._send)
        loop.forget(self._socket)
        self._socket.close()

    def _take(self, request: dict) -> None:
        if "follow" in request:
            for entry in self._journal.contents().splitlines():
                self._send(entry)
            self._journal.listeners.append(self._send)
        elif "complete" in request:
            self._send(to_json({"words": self._control.complete(request["complete"])}).encode())
        else:
            self._control.tell(request["tell"], lambda answer: self._send(to_json(answer).encode()))

    def _send(self, line: bytes) -> None:
        """Sends what the other end takes now; the rest when it takes more."""
        self._to_send += line + b"\n"
        self._flush()

    def _flush(self) -> None:
        try:
            sent = self._socket.send(self._to_send)
        except BlockingIOError:
            sent = 0
        except OSError:
            # It is gone, which is going to be read.
            self._to_send.clear()
            return
        del self._to_send[:sent]
        loop.watch(self._socket, self._read, self._flush if self._to_send else None)
