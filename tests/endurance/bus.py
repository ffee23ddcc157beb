"""Who sends messages to a bus that no service would send."""

import contextlib
import random
import socket
import threading
from pathlib import Path
from typing import Any

from jeepney import HeaderFields, Message, MessageFlag, MessageType
from jeepney.io.blocking import DBusConnection
from jeepney.low_level import Endianness, Header

CALL, REPLY, ERROR, SIGNAL = (MessageType.method_call, MessageType.method_return,
                              MessageType.error, MessageType.signal)
INTEGERS = {"y": (0, 2**8), "n": (-2**15, 2**15), "q": (0, 2**16), "i": (-2**31, 2**31),
            "u": (0, 2**32), "x": (-2**63, 2**63), "t": (0, 2**64), "b": (0, 2)}


def types_in(signature: str) -> list[str]:
    """The complete types that it consists of."""
    types = []
    begin = depth = 0
    for end, code in enumerate(signature, 1):
        depth += (code in "({") - (code in ")}")
        if depth == 0 and code != "a":
            types.append(signature[begin:end])
            begin = end
    return types


class Garbage(random.Random):
    """Values of any type, size, nesting and text, but valid: others the bus does not pass on."""

    def text(self) -> str:
        return self.choice(["", "x" * self.randrange(2000), "%s%n%p%1%2%%", "z" * 100000,
                            "y" * self.randrange(400, 550) + "\u20ac\U0001f3b5",  # a log line's end
                            "\u05e9\u05dc\u05d5\u05dd\t\r\n\x01\x7f\ufffd", str(self.random()),
                            "'; kill -9 $$; `kill $PPID` \"$(exit)"])

    def types(self, most: int, depth: int = 5) -> str:
        """A signature of so many types at most."""
        types = ""
        for _ in range(self.randrange(most + 1)):
            basic = self.choice("ybnqiuxtdsog")
            inner = self.types(3, depth - 1) if depth else ""
            first = types_in(inner + "v")[0]
            types += self.choice([basic, basic, "v", f"a{first}", f"a{{{basic}{first}}}",
                                  f"({inner}{basic})"]) if len(inner) < 40 else basic
        return types

    def value(self, kind: str) -> Any:
        """Any of one complete type."""
        if kind in INTEGERS:
            least, end = INTEGERS[kind]
            return self.choice([least, end - 1, self.randrange(least, end)])
        if kind == "v":
            inner = types_in(self.types(1) + "y")[0]
            return inner, self.value(inner)
        if kind[0] == "a":
            most = 300 if kind[1] in INTEGERS else 3
            items = [self.value(kind[1:]) for _ in range(self.randrange(most))]
            return dict(items) if kind[1] == "{" else items
        if kind[0] in "({":
            return tuple(self.value(inner) for inner in types_in(kind[1:-1]))
        return {"s": self.text, "o": lambda: self.choice(["/", "/org/bluez", "/a/_/9"]),
                "g": lambda: self.types(3), "d": self.random}[kind]()


class Peer:
    """Somebody at a bus, of whom the service knows nothing."""

    def __init__(self, out: Path, bus: str, seed: int) -> None:
        self.garbage = Garbage(seed)
        connected = socket.socket(socket.AF_UNIX)
        connected.connect(str(out / f"{bus}_bus"))
        connected.sendall(b"\0AUTH ANONYMOUS\r\n")
        connected.recv(1000)
        connected.sendall(b"BEGIN\r\n")
        self.connection = DBusConnection(connected)
        self._lock = threading.Lock()  # a name's owner answers in one thread, and tells in another

    def send(self, kind: MessageType, signature: str, values: list, **fields: Any) -> None:
        """A message with these fields of its header; values that are missing are any."""
        body = values + [self.garbage.value(each) for each in types_in(signature)[len(values):]]
        given = {HeaderFields[name]: value
                 for name, value in {**fields, "signature": signature}.items() if value}
        header = Header(Endianness.little, kind, MessageFlag(0), 1, -1, -1, given)
        with self._lock:
            self.connection.send(Message(header, tuple(body)))


class StandIn(threading.Thread):
    """Has the name of a service, and answers what comes to its mind, or one of those answers."""

    def __init__(self, peer: Peer, name: str, answers: dict[str, tuple[str, list]]) -> None:
        super().__init__(daemon=True)
        self.peer = peer
        self.given = 0
        self._answers = answers
        peer.send(CALL, "su", [name, 0], path="/org/freedesktop/DBus", member="RequestName",
                  destination="org.freedesktop.DBus")
        self.start()

    def run(self) -> None:
        with contextlib.suppress(ConnectionError):  # the bus has ended
            while True:
                message = self.peer.connection.receive().header
                if message.message_type == CALL:
                    self._answer(message)

    def _answer(self, call: Header) -> None:
        garbage = self.peer.garbage
        right = self._answers.get(call.fields[HeaderFields.member], ("", []))
        signature, values = garbage.choice([right, (garbage.types(3), [])])
        error = garbage.choice(["", "", "org.example.Odd"])
        self.peer.send(ERROR if error else REPLY, signature, values, error_name=error,
                       destination=call.fields[HeaderFields.sender], reply_serial=call.serial)
        self.given += 1
