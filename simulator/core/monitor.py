"""Every message of a bus, but for the bus's own bookkeeping, goes into the journal. busctl sees
them; here they get the line by which people and stories know them."""

import json
import os
import re
import select
import subprocess
import time
from typing import Any, Callable

from core import loop
from core.bus import Bus
from core.journal import Journal, to_json
from core.words import Refused

BUS_NAME = "org.freedesktop.DBus"
MARK = "product.Monitor"
MARKS = {"com.orbitalis.ulmo.bluetoothmanager": ("?", "!"),
         "com.orbitalis.ulmo.soundmanager": ("@", "<")}
SERVICES_PATH = "/com/orbitalis/ulmo/"
PATIENCE = 5  # seconds
NO_REPLY_EXPECTED = 1  # flag of a call

Message = dict[str, Any]


def changed(value: Any, change: Callable[[Any], Any] = lambda value: value) -> Any:
    """value, or what it holds, without busctl's description of variants, and with change of every
    text and number in it."""
    if isinstance(value, list):
        return [changed(item, change) for item in value]
    if not isinstance(value, dict):
        return change(value)
    if value.keys() == {"type", "data"}:
        return changed(value["data"], change)
    return {key: changed(item, change) for key, item in value.items()}


class BusMonitor:
    def __init__(self, bus: str, journal: Journal, short_name: Callable[[str], str]) -> None:
        """bus is "session" or "system". short_name tells what people call the object at a path;
        the path itself when it has no other name."""
        self._bus = bus
        self._journal = journal
        self._short_name = short_name
        self._busctl: subprocess.Popen | None = None
        self._marks = 0
        self._is_settled = True
        self._open_calls: dict[tuple[str, int], tuple[str, Message]] = {}

    def start(self, address: str) -> None:
        """Begins, or begins anew with a bus that was ended."""
        self._address = address
        self.stop()
        self._rest = b""
        self._open_calls.clear()
        self._busctl = subprocess.Popen(
            ["busctl", f"--address={address}", "--json=short", "monitor"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        loop.watch(self._busctl.stdout, self._read)
        # Nothing may happen on the bus before it listens.
        self.settle()
        if not self._is_settled or not self._busctl:
            raise Refused(f"busctl cannot watch the {self._bus} bus")

    def stop(self) -> None:
        if self._busctl:
            loop.forget(self._busctl.stdout)
            self._busctl.kill()
            self._busctl.communicate()
        self._busctl = None

    def settle(self) -> None:
        """Returns when everything that has been sent before is in the journal."""
        # The bus shows everything in one order, a signal of our own as well, once busctl is there.
        try:
            own = Bus(self._address)
        except OSError:
            return
        self._marks += 1
        deadline = time.monotonic() + PATIENCE
        self._is_settled = False
        while (not self._is_settled and time.monotonic() < deadline
               and own.emit("/", f"{MARK}.Mark{self._marks}")):
            while not self._is_settled and select.select([self._busctl.stdout], [], [], 0.02)[0]:
                self._read()
        own.close()

    def _read(self) -> None:
        data = os.read(self._busctl.stdout.fileno(), 1 << 16)
        if not data:
            # It ends by itself when its bus does.
            self._is_settled = True
            self.stop()
        *lines, self._rest = (self._rest + data).split(b"\n")
        for line in lines:
            self._record(json.loads(line))

    def _record(self, message: Message) -> None:
        payload = message.get("payload", {})
        facts = {"bus": self._bus, "serial": message.get("cookie"),
                 "signature": payload.get("type", ""),
                 "arguments": changed(payload.get("data", []))}
        for key in ("sender", "destination", "path", "interface", "member"):
            if key in message:
                facts[key] = message[key]
        if facts.get("interface") == MARK:
            self._is_settled |= facts["member"] == f"Mark{self._marks}"
        elif message["type"] == "method_call":
            self._record_call(message, facts)
        elif message["type"] == "signal":
            self._record_signal(facts)
        else:
            self._record_answer(message, facts)

    def _record_call(self, message: Message, facts: Message) -> None:
        destination = facts.get("destination", "")
        interface, _, name = facts.get("interface", "").rpartition(".")
        if destination == BUS_NAME:
            return
        asked, answered = MARKS.get(destination, (">", "<"))
        # The product's services have one object each, and are mostly called by their own interface.
        call = f"{name}.{facts['member']}".lstrip(".")
        if not facts["path"].startswith(SERVICES_PATH):
            call += " " + self._short_name(facts["path"])
        elif interface.startswith("com.orbitalis."):
            call = facts["member"]
        if not message.get("flags", 0) & NO_REPLY_EXPECTED:
            self._open_calls[facts["sender"], message["cookie"]] = f"{answered} {call}", facts
        self._write("call", [asked, call, *self._words(facts["arguments"])], facts)

    def _record_answer(self, message: Message, facts: Message) -> None:
        serial = message.get("reply_cookie")
        # What nobody has seen asked was asked of the bus itself.
        beginning, call = self._open_calls.pop((facts["destination"], serial), ("", {}))
        if not call:
            return
        facts["replySerial"] = serial
        facts |= {key: call[key] for key in ("path", "interface", "member") if key in call}
        arguments = facts["arguments"]
        error = message.get("error_name")
        if not error:
            self._write("reply", [beginning, *self._words(arguments)], facts)
            return
        text = arguments[0] if arguments else None
        self._write("error", [beginning, error.rpartition(".")[2], to_json(text)],
                    facts | {"name": error, "text": text})

    def _record_signal(self, facts: Message) -> None:
        interface, member, arguments = facts["interface"], facts["member"], facts["arguments"]
        is_bus = facts.get("sender") == BUS_NAME
        if is_bus or interface == BUS_NAME or interface.endswith(".Local"):
            # Of its bookkeeping only who comes under a name of its own, and who goes.
            if is_bus and member == "NameOwnerChanged" and not arguments[0].startswith(":"):
                state = "is there" if arguments[2] else "is gone"
                self._write("signal", ["~", arguments[0], state], facts)
        elif interface == "com.orbitalis.ulmo.bluetoothinterface":
            self._write("signal", ["@", member, *self._words(arguments)], facts)
        else:
            if member == "PropertyChanged" and len(arguments) == 2:
                member, *arguments = arguments
            name = f"{interface.rpartition('.')[2]}.{member}"
            self._write("signal", ["~", self._short_name(facts["path"]), name,
                                   *self._words(arguments)], facts)

    def _write(self, kind: str, words: list[str], facts: Message) -> None:
        self._journal.record("bus", kind, " ".join(words), **facts)

    def _words(self, arguments: list[Any]) -> list[str]:
        def shorten(value: Any) -> Any:
            return self._short_name(value) if str(value).startswith("/") else value
        return [word if isinstance(word, str) and re.fullmatch(r"[\w.:/@%+-]+", word)
                else to_json(word) for word in changed(arguments, shorten)]
