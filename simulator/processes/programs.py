"""The programs of the board that the service starts. Each does what it has to do by its name, or
does wrong as the faults say."""

import os
import signal
import socket
import struct
import subprocess
from pathlib import Path
from typing import Callable

from bluez.bluez import BlueZ
from bluez.phone import Phone
from core import loop
from core.faults import Faults
from core.journal import Journal
from core.words import Refused
from sound.source import Source, source_name

SOCKET = "/run/product/stubs"
PROGRAM_FOLDER = Path("/run/product/bin")
REAL_PROGRAMS = "/run/product/host/bin/"
PULSE_PID = Path("/var/run/pulse/pid")
DAEMONS = ("bluetoothd", "agent", "pulseaudio")
#: PulseAudio's module for BlueZ 4, which Debian has no more: the product makes the phone's source.
DISCOVERY = "module-bluetooth-discover"
END_DELAY = 0.02  # seconds it takes a daemon to end; the real ones need 10 to 50 ms

#: As a real one answers "browse local". The service cuts the record's number out of it by the words
#: "Headset Audio Gateway", which stand there twice, and so deletes nothing.
BROWSED = """\
Browsing FF:FF:FF:00:00:00 ...
Service Name: Headset Audio Gateway
Service RecHandle: 0x10005
Service Class ID List:
  "Headset Audio Gateway" (0x1112)
  "Generic Audio" (0x1203)
"""


class Stub:
    """A program as long as it lives: our end of the socket of its stub."""

    def __init__(self, connection: socket.socket) -> None:
        self.socket = connection
        peer = connection.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
        self.pid = struct.unpack("3i", peer)[0]
        self.name = ""
        self.host_name = ""  # its environment variable BLUEZHOSTNAME
        self.arguments: list[str] = []
        self.ignores_term = False
        #: "signal" or "status" and its number; empty of a real program, which tells nobody.
        self.end: dict[str, int] = {"signal": signal.SIGKILL}  # of SIGTERM it tells

    def order(self, *texts: str) -> None:
        """Gives an order of stub.c."""
        try:
            self.socket.send("".join(text + "\0" for text in texts).encode())
        except OSError:
            pass  # it has ended, which is going to be read

    def exit(self, status: int) -> None:
        self.end = {"status": status}
        self.order("exit", str(status))

    def end_by(self, number: int) -> None:
        self.end = {"signal": number}
        self.order("signal", str(number))


class Programs:
    def __init__(self, journal: Journal, faults: Faults, bluez: BlueZ, source: Source,
                 real_pulse: bool) -> None:
        """With real_pulse, pulseaudio and pactl become the real ones."""
        #: Called when a program has just started, or is told to end: what the service has said
        #: before that goes to the journal first.
        self.about_to_speak: Callable[[], None] = lambda: None
        self._journal = journal
        self._faults = faults
        self._bluez = bluez
        self._source = source
        self._real_pulse = real_pulse
        self._files = {file.name: os.readlink(file) for file in PROGRAM_FOLDER.iterdir()}
        self._stubs: list[Stub] = []  # in the order of their start
        self._serving: dict[str, Stub] = {}  # of the daemons by their names
        self._loopback = ""  # the source that the scripted sound server takes
        bluez.agent_exited = self._agent_exited
        bluez.stream_changed.append(self._stream_changed)

        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._socket.setblocking(False)
        self._socket.bind(SOCKET)
        self._socket.listen(socket.SOMAXCONN)
        loop.watch(self._socket, self._accept)

    def catch_up(self) -> None:
        """Takes notice of everything that has happened to them."""
        self._accept()
        for stub in list(self._stubs):
            # One that is read may end others.
            if stub in self._stubs:
                self._read(stub)

    def update_presence(self) -> None:
        """Shows or takes away their files, as the faults say."""
        for name, target in self._files.items():
            link = PROGRAM_FOLDER / name
            if self._faults.standing(name, "missing"):
                link.unlink(missing_ok=True)
            elif not link.is_symlink():
                link.symlink_to(target)

    def kill(self, program: str, number: int) -> None:
        """Sends the signal to the program of this name that was started last."""
        stub = next((each for each in reversed(self._stubs) if each.name == program), None)
        if not stub:
            raise Refused(f"{program} is not running")
        if number not in (signal.SIGTERM, signal.SIGSTOP, signal.SIGCONT):
            stub.end = {"signal": number}
        os.kill(stub.pid, number)

    def system_bus_lost(self) -> None:
        """What cannot live without it ends too."""
        for name in ("bluetoothd", "agent"):
            if stub := self._serving.get(name):
                self._stop_serving(stub, orderly=False)
                stub.exit(1)

    def _agent_exited(self, status: int) -> None:
        if agent := self._serving.pop("agent", None):
            loop.later(END_DELAY, lambda: agent.exit(status))

    def _accept(self) -> None:
        try:
            while True:
                stub = Stub(self._socket.accept()[0])
                stub.socket.setblocking(False)
                self._stubs.append(stub)
                loop.watch(stub.socket, lambda stub=stub: self._read(stub))
                self._read(stub)
        except BlockingIOError:
            return

    def _read(self, stub: Stub) -> None:
        try:
            while packet := stub.socket.recv(1 << 16):
                self._take(stub, packet.decode(errors="replace").split("\0")[:-1])
        except BlockingIOError:
            return
        except OSError:
            pass
        if stub in self._stubs:
            self._stubs.remove(stub)
            loop.forget(stub.socket)
            stub.socket.close()
            self._ended(stub)

    def _take(self, stub: Stub, texts: list[str]) -> None:
        self.about_to_speak()
        if stub.name:
            # There is nothing else that it tells.
            self._termination_requested(stub)
            return
        stub.name, stub.host_name, *stub.arguments = texts
        mark = "&" if stub.name in DAEMONS else "$"
        self._record(stub, "start", [mark, stub.name, *stub.arguments], arguments=stub.arguments)
        self._started(stub)

    def _record(self, stub: Stub, kind: str, words: list[str], **facts: object) -> None:
        self._journal.record("program", kind, " ".join(words), program=stub.name, pid=stub.pid,
                             **facts)

    def _started(self, stub: Stub) -> None:
        fault = self._faults.next(stub.name, " ".join(stub.arguments))
        if fault.name == "exit":
            stub.exit(fault.number)
        elif fault.name == "crash":
            stub.end_by(signal.SIGSEGV)
        elif fault.name == "delay":
            loop.later(fault.number / 1000, lambda: stub in self._stubs and self._carry_out(stub))
        elif fault.name != "hang":
            stub.ignores_term = fault.name == "ignore-term"
            self._carry_out(stub)

    def _carry_out(self, stub: Stub) -> None:
        if stub.name in ("bluetoothd", "agent"):
            self._start_on_bus(stub)
        elif stub.name == "pulseaudio":
            self._start_pulseaudio(stub)
        elif stub.name == "pactl":
            self._run_pactl(stub)
        elif stub.name == "sdptool":
            self._run_sdptool(stub)
        else:
            if stub.name == "hciconfig":
                self._bluez.adapter.hciconfig(stub.arguments)
            stub.exit(0)

    def _start_on_bus(self, stub: Stub) -> None:
        # There can be one at a time, and none without a bus.
        try:
            if stub.name in self._serving:
                stub.exit(1)
                return
            if stub.name == "agent":
                self._bluez.start_agent(stub.arguments)
            else:
                self._bluez.start(stub.pid, stub.host_name)
            self._serving[stub.name] = stub
        except OSError:
            stub.exit(1)

    def _start_pulseaudio(self, stub: Stub) -> None:
        self._serving[stub.name] = stub
        if self._real_pulse:
            stub.end = {}
            stub.order("become", REAL_PROGRAMS + stub.name, os.environ.get("PRODUCT_ONE_GROUP", ""))
            return
        # One that finds the number of another takes that for running, if anybody has it by now.
        if PULSE_PID.exists():
            stub.exit(1)
            return
        PULSE_PID.parent.mkdir(exist_ok=True)
        PULSE_PID.write_text(f"{stub.pid}\n")

    def _run_sdptool(self, stub: Stub) -> None:
        command, *rest = stub.arguments
        if command == "browse":
            stub.order("print", BROWSED)
        fails = command == "del" and not (rest and rest[0].startswith("0x"))
        stub.exit(255 if fails else 0)

    def _run_pactl(self, stub: Stub) -> None:
        if self._real_pulse and DISCOVERY not in stub.arguments:
            self._run_real_pactl(stub)
        elif "pulseaudio" not in self._serving or not self._load_module(stub.arguments):
            stub.exit(1)
        else:
            needs_loopback = stub.arguments[0].startswith("set-source-output-")
            stub.exit(1 if needs_loopback and not self._loopback else 0)

    def _run_real_pactl(self, stub: Stub) -> None:
        def ended() -> None:
            stub.order("print", pactl.communicate()[0])
            stub.exit(pactl.returncode)
        pactl = subprocess.Popen([REAL_PROGRAMS + stub.name, *stub.arguments], text=True,
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        loop.when_ended(pactl, ended)

    def _load_module(self, arguments: list[str]) -> bool:
        """False when the scripted server would not load a module."""
        if DISCOVERY in arguments:
            self._set_discovered(True)
        if "module-loopback" not in arguments:
            return True
        for phone in self._bluez.phones.values():
            is_there = phone.stream and self._bluez.adapter.takes_streams
            if is_there and f"source={source_name(phone)}" in arguments:
                self._loopback = source_name(phone)
                return True
        return False

    def _set_discovered(self, discovered: bool) -> None:
        self._source.set_discovered(discovered and self._real_pulse)
        self._bluez.adapter.take_streams(discovered)

    def _stream_changed(self, phone: Phone) -> None:
        if not phone.stream and self._loopback == source_name(phone):
            self._loopback = ""

    def _termination_requested(self, stub: Stub) -> None:
        if stub.ignores_term:
            return
        if self._serving.get(stub.name) is not stub:
            stub.end_by(signal.SIGTERM)
            return
        if stub.name == "pulseaudio":
            PULSE_PID.unlink(missing_ok=True)
        else:
            self._stop_serving(stub, orderly=True)
        loop.later(END_DELAY, lambda: stub.exit(0) if stub in self._stubs else None)

    def _ended(self, stub: Stub) -> None:
        if stub.name:
            how = [f"{'with status' if key == 'status' else 'by signal'} {number:d}"
                   for key, number in stub.end.items()]
            arguments = [] if stub.name in DAEMONS else stub.arguments
            self._record(stub, "end", [".", stub.name, *arguments, "ended", *how], **stub.end)
        if self._serving.get(stub.name) is stub:
            self._stop_serving(stub, orderly=False)

    def _stop_serving(self, stub: Stub, orderly: bool) -> None:
        del self._serving[stub.name]
        if stub.name == "bluetoothd":
            self._bluez.stop(orderly)
        elif stub.name == "agent":
            self._bluez.stop_agent(orderly)
        else:
            self._loopback = ""
            self._set_discovered(False)
