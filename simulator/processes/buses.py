"""The two buses of the board, "session" and "system", each a daemon that can be ended."""

import os
import select
import subprocess
from typing import Callable

from core.bus import Bus, Call
from core.words import Refused

PATIENCE = 10  # seconds


def address(bus: str) -> str:
    return os.environ[f"DBUS_{bus.upper()}_BUS_ADDRESS"]


class Buses:
    def __init__(self, folder: str) -> None:
        """What the daemons complain of goes into buses.log in folder."""
        self._complaints = open(f"{folder}/buses.log", "ab")
        self._daemons: dict[str, subprocess.Popen] = {}
        self._connections: dict[tuple[str, str], Bus] = {}

    def connection(self, bus: str, name: str, *handle: Callable[[Call], None]) -> Bus:
        """The connection of somebody to a bus; one whose bus was ended is made anew. OSError when
        there is no bus."""
        known = self._connections.get((bus, name))
        if not known or not known.is_open:
            self._connections[bus, name] = Bus(address(bus), *handle)
        return self._connections[bus, name]

    def start(self, bus: str) -> None:
        if bus in self._daemons:
            raise Refused(f"the {bus} bus runs already")
        daemon = subprocess.Popen(
            ["dbus-daemon", "--config-file=/run/product/bus.conf", "--nofork", "--nopidfile",
             f"--address={address(bus)}", "--print-address"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=self._complaints)
        self._daemons[bus] = daemon
        # Once the address is printed, the socket is there.
        if not (select.select([daemon.stdout], [], [], PATIENCE)[0] and daemon.stdout.readline()):
            self.kill(bus)
            raise Refused(f"the {bus} bus does not start")

    def kill(self, bus: str) -> None:
        """Ends it; what was connected to it has lost it for good."""
        if bus not in self._daemons:
            raise Refused(f"the {bus} bus does not run")
        daemon = self._daemons.pop(bus)
        daemon.kill()
        daemon.wait()
        for key in [key for key in self._connections if key[0] == bus]:
            del self._connections[key]
