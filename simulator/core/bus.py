"""A program's own connection to a bus. Members are written "org.bluez.Device.Disconnect"."""

import re
from dataclasses import dataclass
from typing import Any, Callable, Iterable

from jeepney import (DBusAddress, HeaderFields, MatchRule, Message, MessageFlag, MessageType,
                     message_bus, new_error, new_method_call, new_method_return, new_signal)
from jeepney.io.blocking import DBusConnection, prep_socket

from core import loop
from core.words import PATH, Refused

PATIENCE = 5  # seconds, for what only the bus has to do
ERROR = "org.freedesktop.DBus.Error."
MEMBER = re.compile(r"([A-Za-z_][A-Za-z0-9_]*\.)+[A-Za-z_][A-Za-z0-9_]*")


@dataclass
class Reply:
    """What has come of a call."""

    values: tuple = ()
    error: str = ""  # its name; empty when all is well
    text: str = ""


class Call:
    """A method call from the bus, which is answered once, now or later."""

    def __init__(self, bus: "Bus", message: Message) -> None:
        field = message.header.fields.get
        self.path: str = field(HeaderFields.path)
        self.sender: str = field(HeaderFields.sender)
        self.interface: str = field(HeaderFields.interface, "")
        self._member = field(HeaderFields.member)
        self._signature = field(HeaderFields.signature, "")
        #: Interface, member and signature, as "Device.SetProperty(sv)".
        self.method = f"{self.interface.rpartition('.')[2]}.{self._member}({self._signature})"
        self.arguments = message.body
        self.bus = bus
        self._message = message

    def reply(self, signature: str = "", *values: Any) -> None:
        self._send(new_method_return(self._message, signature or None, values))

    def fail(self, error: str, text: str = "") -> None:
        """error is one of BlueZ's, "NotConnected", or a whole name; its words are the text."""
        name = error if "." in error else "org.bluez.Error." + error
        words = re.sub(r"(?<=[a-z])(?=[A-Z])", " ", name.rpartition(".")[2])
        self._send(new_error(self._message, name, "s", (text or words,)))

    def fail_unknown(self, has_object: bool = True) -> None:
        """There is no such method, or not even the object."""
        self.fail(ERROR + ("UnknownMethod" if has_object else "UnknownObject"),
                  f'Method "{self._member}" with signature "{self._signature}" on interface '
                  f'"{self.interface}" doesn\'t exist')

    def _send(self, answer: Message) -> None:
        if not self._message.header.flags & MessageFlag.no_reply_expected:
            self.bus.send(answer)


class Bus:
    """The connection, until close() or the end of the bus."""

    def __init__(self, address: str, handle: Callable[[Call], None] = Call.fail_unknown) -> None:
        """handle gets the calls to any object. OSError when the bus is not there."""
        self._connection = DBusConnection(prep_socket(address.removeprefix("unix:path=")))
        self._handle = handle
        self._answers: dict[int, Callable[[Reply], object]] = {}
        self._gone: dict[str, loop.Action] = {}
        self.is_open = True
        loop.watch(self._connection.sock, self._read)

    def send(self, message: Message, serial: int | None = None) -> bool:
        """False when the bus has gone."""
        try:
            self._connection.send(message, serial)
        except OSError:
            return False
        return self.is_open

    def call(self, destination: str, path: str, member: str, signature: str = "",
             values: Iterable[Any] = (), answered: Callable[[Reply], object] = lambda reply: None,
             limit: float = 120) -> int:
        """Calls it; answered gets what has come of that, within limit seconds. Returns a number
        for drop()."""
        interface, _, name = member.rpartition(".")
        address = DBusAddress(path, destination, interface)
        message = new_method_call(address, name, signature or None, tuple(values))
        serial = next(self._connection.outgoing_serial)
        self._answers[serial] = answered
        if not MEMBER.fullmatch(member) or not self.send(message, serial):
            self._answer(serial, Reply(error=ERROR + "Disconnected", text="cannot be sent"))
            return serial
        loop.later(limit, lambda: self._answer(serial, Reply(error=ERROR + "NoReply",
                                                             text="nobody has answered")))
        return serial

    def drop(self, serial: int) -> None:
        """Nobody waits for this answer any more."""
        self._answers.pop(serial, None)

    def emit(self, path: str, member: str, signature: str = "", values: Iterable[Any] = ()) -> bool:
        """Sends a signal; false when the bus has gone."""
        interface, _, name = member.rpartition(".")
        # The bus throws out whoever sends what is no signal.
        if not PATH.fullmatch(path) or not MEMBER.fullmatch(member):
            raise Refused("this is no PATH INTERFACE.SIGNAL")
        return self.send(new_signal(DBusAddress(path, interface=interface), name,
                                    signature or None, tuple(values)))

    def own(self, name: str, owns: bool = True) -> None:
        """Has a name, or gives it back; returns when that is so."""
        self._ask(message_bus.RequestName(name) if owns else message_bus.ReleaseName(name))

    def when_gone(self, name: str, action: loop.Action) -> None:
        """Calls action when the owner of name gives it up."""
        self._gone[name] = action
        rule = MatchRule(type="signal", member="NameOwnerChanged", path="/org/freedesktop/DBus")
        rule.add_arg_condition(0, name)
        self._ask(message_bus.AddMatch(rule))

    def _ask(self, question: Message) -> None:
        """Waits for the bus's own answer. What comes meanwhile has its turn after that."""
        serial = next(self._connection.outgoing_serial)
        if not self.send(question, serial):
            return
        try:
            while True:
                message = self._connection.receive(timeout=PATIENCE)
                if message.header.fields.get(HeaderFields.reply_serial) == serial:
                    return
                loop.later(0, lambda message=message: self._take(message))
        except OSError:
            self.close()

    def close(self) -> None:
        """Leaves the bus, which gets all that was sent before."""
        if not self.is_open:
            return
        self.is_open = False
        loop.forget(self._connection.sock)
        self._connection.close()

    def _read(self) -> None:
        try:
            data = self._connection.sock.recv(1 << 16)
        except ConnectionError:
            data = b""
        if not data:
            self.close()
            for serial in list(self._answers):
                self._answer(serial, Reply(error=ERROR + "Disconnected", text="the bus has ended"))
        for message in self._connection.parser.feed(data):
            self._take(message)

    def _take(self, message: Message) -> None:
        header = message.header
        field = header.fields.get
        if not self.is_open:
            return
        if header.message_type == MessageType.method_call:
            self._handle(Call(self, message))
        elif header.message_type == MessageType.signal:
            # NameOwnerChanged, of a name that nobody has now.
            if field(HeaderFields.sender) == message_bus.bus_name and message.body[2:] == ("",):
                self._gone.get(message.body[0], lambda: None)()
        else:
            text = str(message.body[0]) if message.body else ""
            error = field(HeaderFields.error_name, "")
            self._answer(field(HeaderFields.reply_serial),
                         Reply(error=error, text=text) if error else Reply(message.body))

    def _answer(self, serial: int, reply: Reply) -> None:
        answered = self._answers.pop(serial, None)
        if answered:
            answered(reply)
