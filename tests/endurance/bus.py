"""Who sends messages to a bus that no library would write."""

import random
import socket
import threading
from pathlib import Path
from typing import Any, Iterator

CALL, REPLY, ERROR, SIGNAL = 1, 2, 3, 4
SIZES = {"y": 1, "n": 2, "q": 2, "b": 4, "i": 4, "u": 4, "x": 8, "t": 8, "d": 8}
ALIGNMENTS = {**SIZES, "g": 1, "v": 1, "(": 8, "{": 8, "s": 4, "o": 4, "a": 4}
FIELDS = {"path": (1, "o"), "interface": (2, "s"), "member": (3, "s"), "error_name": (4, "s"),
          "reply_serial": (5, "u"), "destination": (6, "s"), "signature": (8, "g")}
SENDER = b"\7\1s\0"  # as this field begins


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

    def write(self, data: bytearray, kind: str, value: Any = None) -> None:
        """Appends a value of one complete type: any, where none is given."""
        data += bytes(-len(data) % ALIGNMENTS[kind[0]])
        if kind in SIZES:
            size = SIZES[kind]
            if value is None and kind != "b":
                data += self.choice([bytes(size), b"\xff" * size, self.randbytes(size)])
            else:
                data += (self.randrange(2) if value is None else value).to_bytes(size, "little")
        elif kind in ("s", "o", "g"):
            text = {"s": self.text, "o": lambda: self.choice(["/", "/org/bluez", "/a/_/9"]),
                    "g": lambda: self.types(3)}[kind]() if value is None else value
            data += len(text.encode()).to_bytes(1 if kind == "g" else 4, "little")
            data += text.encode() + b"\0"
        elif kind == "v":
            inner, value = value or (types_in(self.types(1) + "y")[0], None)
            self.write(data, "g", inner)
            self.write(data, inner, value)
        elif kind[0] == "a":
            length = len(data)
            data += bytes(4)
            data += bytes(-len(data) % ALIGNMENTS[kind[1]])
            begin = len(data)
            most = 300 if kind[1] in SIZES else 3
            for item in [None] * self.randrange(most) if value is None else value:
                self.write(data, kind[1:], item)
            data[length:length + 4] = (len(data) - begin).to_bytes(4, "little")
        else:
            types = types_in(kind[1:-1])
            for field, item in zip(types, value or [None] * len(types)):
                self.write(data, field, item)


class Peer:
    """Somebody at a bus, of whom the service knows nothing."""

    def __init__(self, out: Path, bus: str, seed: int) -> None:
        self.garbage = Garbage(seed)
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(str(out / f"{bus}_bus"))
        self._socket.sendall(b"\0AUTH ANONYMOUS\r\n")
        self._socket.recv(1000)
        self._socket.sendall(b"BEGIN\r\n")
        self._serial = 0
        self._lock = threading.Lock()  # a name's owner answers in one thread, and tells in another
        self.call_bus("Hello", "", [])

    def call_bus(self, member: str, signature: str, values: list) -> None:
        self.send(CALL, signature, values, path="/org/freedesktop/DBus", member=member,
                  destination="org.freedesktop.DBus")

    def send(self, kind: int, signature: str, values: list, **fields: Any) -> None:
        """A message with these fields of its header; values that are missing are any."""
        body = bytearray()
        types = types_in(signature)
        for each, value in zip(types, values + [None] * len(types)):
            self.garbage.write(body, each, value)
        fields["signature"] = signature
        with self._lock:
            self._serial += 1
            data = bytearray(b"l" + bytes([kind, 0, 1]))
            data += len(body).to_bytes(4, "little") + self._serial.to_bytes(4, "little")
            self.garbage.write(data, "a(yv)", [(FIELDS[name][0], (FIELDS[name][1], value))
                                               for name, value in fields.items() if value])
            self._socket.sendall(data + bytes(-len(data) % 8) + body)

    def calls(self) -> Iterator[bytes]:
        """Those that come, until the bus ends."""
        stream = self._socket.makefile("rb")
        while start := stream.read(16):
            body, fields = (int.from_bytes(start[at:at + 4], "little") for at in (4, 12))
            message = start + stream.read(fields + -fields % 8 + body)
            if message[1] == CALL:
                yield message


class StandIn(threading.Thread):
    """Has the name of a service, and answers what comes to its mind, or one of those answers."""

    def __init__(self, peer: Peer, name: str, answers: dict[str, tuple[str, list]]) -> None:
        super().__init__(daemon=True)
        self.peer = peer
        self.given = 0
        self._answers = answers
        peer.call_bus("RequestName", "su", [name, 0])
        self.start()

    def run(self) -> None:
        garbage = self.peer.garbage
        for call in self.peer.calls():
            at = call.index(SENDER) + len(SENDER)
            right = next((answer for member, answer in self._answers.items()
                          if member.encode() in call), ("", []))
            signature, values = garbage.choice([right, (garbage.types(3), [])])
            error = garbage.choice(["", "", "org.example.Odd"])
            self.peer.send(ERROR if error else REPLY, signature, values, error_name=error,
                           destination=call[at + 4:at + 4 + call[at]].decode(),
                           reply_serial=int.from_bytes(call[8:12], "little"))
            self.given += 1
