#!/usr/bin/python3
"""tst_events.py CLIENT...: power events from the login manager, through a client, on a bus of its
own. Those of the product's platform are told in stories."""
import os
import select
import subprocess
import sys
import time
import unittest

from jeepney import (DBusAddress, HeaderFields, MessageType, message_bus, new_error,
                     new_method_return, new_signal)
from jeepney.io.blocking import Proxy, open_dbus_connection

CLIENT = sys.argv[1:]
PATIENCE = 20  # seconds
MANAGER = DBusAddress("/org/freedesktop/login1", interface="org.freedesktop.login1.Manager")
# The kind in systemd's metadata, or that of what is scheduled, and in how many seconds; the call.
EVENTS = (("poweroff", "", 0, "shutdown shutdown"), ("reboot", "", 0, "reboot reboot"),
          ("kexec", "", 0, "reboot reboot"), ("soft-reboot", "", 0, "reboot reboot"),
          ("", "reboot", 0, "reboot reboot"), ("", "reboot", -1, "reboot reboot"),
          ("", "reboot", 3600, "shutdown shutdown"), ("", "", 0, "shutdown shutdown"),
          ("", "", 0, "suspend suspend"))


def emit(bus, name: str, signature: str, *values):
    bus.send(new_signal(MANAGER, name, signature, values))


def has_input(file) -> bool:
    return bool(select.select([file], [], [], 0)[0])


class LoginManager:
    def __init__(self, scheduled=("", 0), refusals=0, is_late=False):
        self.bus = open_dbus_connection(enable_fds=True)
        Proxy(message_bus, self.bus).RequestName("org.freedesktop.login1")
        self.scheduled = scheduled  # the kind, and microseconds since 1970, 0 for at once
        self.refusals = refusals
        self.is_late = is_late  # what it grants comes after the sleep has begun
        self._inhibitor = None

    def serve_until(self, holds):
        deadline = time.monotonic() + PATIENCE
        while not holds():
            if time.monotonic() > deadline:
                raise AssertionError("this has not come")
            try:
                message = self.bus.receive(timeout=0.02)
            except TimeoutError:
                continue
            if message.header.message_type == MessageType.method_call:
                self._answer(message)

    def _answer(self, call):
        if call.header.fields[HeaderFields.member] == "Get" and self.scheduled[0]:
            self.bus.send(new_method_return(call, "v", (("(st)", self.scheduled),)))
        elif call.body[0] != "sleep:shutdown" or self.refusals > 0:
            self.refusals -= 1
            self.bus.send(new_error(call, "x.Refused", "s", ("not today",)))
        else:
            if self.is_late:
                emit(self.bus, "PrepareForSleep", "b", True)
            self._inhibitor, given = os.pipe()
            self.bus.send(new_method_return(call, "h", (given,)))
            os.close(given)

    def is_inhibited(self) -> bool:
        """Whether the other end of the last inhibitor given out is open somewhere."""
        return self._inhibitor is not None and not has_input(self._inhibitor)


class Events(unittest.TestCase):
    def start(self, **environment):
        self.doCleanups()  # of the one before
        client = subprocess.Popen([*CLIENT, "events"], bufsize=0, stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, env={**os.environ, **environment})
        self.addCleanup(client.communicate)
        return client

    def check_call(self, client, login: LoginManager, call: str, is_inhibited=True):
        """The feature is called, and the machine waits until it is done."""
        login.serve_until(lambda: has_input(client.stdout))
        self.assertEqual(client.stdout.readline().decode().strip(), call)
        self.assertEqual(login.is_inhibited(), is_inhibited)
        client.stdin.write(b"\n")
        login.serve_until(lambda: not login.is_inhibited())

    def test_events(self):
        """The same thing twice, with the return from it between: it comes once each time."""
        for kind, scheduled, seconds, call in EVENTS:
            with self.subTest((kind, scheduled, seconds)):
                client = self.start()
                due = int(time.time() + seconds) * 1000000 if seconds else 0
                login, stranger = LoginManager((scheduled, due)), open_dbus_connection()
                name = "PrepareForSleep" if "suspend" in call else "PrepareForShutdown"

                def announce(begins: bool):
                    if kind:
                        metadata = {"type": ("s", kind)}
                        emit(login.bus, name + "WithMetadata", "ba{sv}", begins, metadata)
                    emit(login.bus, name, "b", begins)
                for _ in range(2):
                    login.serve_until(login.is_inhibited)
                    emit(stranger, name, "b", True)
                    emit(stranger, name + "WithMetadata", "ba{sv}", True, {})
                    Proxy(message_bus, stranger).GetId()  # the bus has passed them on
                    announce(True)
                    self.check_call(client, login, call)
                    announce(True)
                    announce(False)
                # Had it come once more, the client would wait for its answer now.
                login.serve_until(login.is_inhibited)
                login.bus.close()
                stranger.close()

    def test_restart(self):
        """It goes away after it granted too late, and the next one refuses at first. It is on the
        machine's bus, where the service's is another one."""
        client = self.start(DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nowhere",
                            ULMO_MACHINE_BUS_ADDRESS=os.environ["DBUS_SESSION_BUS_ADDRESS"])
        login = LoginManager(is_late=True)
        self.check_call(client, login, "suspend suspend")
        login.bus.close()
        login = LoginManager(refusals=1)
        login.serve_until(lambda: login.refusals == 0)
        emit(login.bus, "PrepareForSleep", "b", True)
        self.check_call(client, login, "suspend suspend", is_inhibited=False)
        emit(login.bus, "PrepareForSleep", "b", False)
        login.serve_until(login.is_inhibited)
        login.bus.close()


if __name__ == "__main__":
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = os.environ["DBUS_SESSION_BUS_ADDRESS"]
    unittest.main(argv=sys.argv[:1])
