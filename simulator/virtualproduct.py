"""All the parts of the virtual product, put together."""

import signal

from bluez.bluez import BlueZ
from core import loop
from core.faults import Faults
from core.journal import Journal
from core.monitor import BusMonitor
from processes import buses
from processes.programs import Programs
from processes.service import Service
from processes.soundmanager import SoundManager
from sound.source import Source

OUT = "/run/product/out"
SERVICE_PATIENCE = 20  # seconds until its end


class VirtualProduct:
    def __init__(self, began: float, real_pulse: bool, program: str, environment: list[str],
                 under: str) -> None:
        """Starts everything but the service, for which the last three see Service."""
        self.journal = Journal(f"{OUT}/journal.jsonl", began)
        self.faults = Faults()
        self.buses = buses.Buses(OUT)
        self.bluez = BlueZ(self.journal, self.faults, buses.address("system"))
        self.service = Service(self.journal, program, environment, under)
        self.sound_manager = SoundManager(self.faults, self.buses)
        self._monitors = {"session": BusMonitor("session", self.journal, lambda path: path),
                          "system": BusMonitor("system", self.journal, self.bluez.short_name)}
        for bus in self._monitors:
            self.start_bus(bus)
        source = Source(self.journal)
        self.programs = Programs(self.journal, self.faults, self.bluez, source, real_pulse)
        self.bluez.stream_changed.append(source.stream_changed)
        # What the service has said before comes first; and a program that it has waited for has
        # ended before what it says next.
        self.programs.about_to_speak = self.service.drain
        self.service.has_printed = self._service_has_printed

    def start_bus(self, bus: str) -> None:
        """Starts it together with what the product has there."""
        self.buses.start(bus)
        self._monitors[bus].start(buses.address(bus))
        if bus == "session":
            self.sound_manager.update_presence()
            # Of the platform's power events.
            self.buses.connection(bus, "platform").own("com.orbitalis.ulmo.platform")

    def kill_bus(self, bus: str) -> None:
        self.buses.kill(bus)
        if bus == "system":
            self.programs.system_bus_lost()

    def quit(self) -> None:
        """Stops the service, if it runs, and then ends the product."""
        if not self.service.is_running:
            self._finish()
            return
        self.service.when_ended.append(lambda how: self._finish())
        self.service.kill(signal.SIGTERM)
        self.service.kill(signal.SIGCONT)  # it may be held
        loop.later(SERVICE_PATIENCE, self._finish)

    def _finish(self) -> None:
        self.programs.catch_up()
        for monitor in self._monitors.values():
            monitor.settle()
        loop.end()

    def _service_has_printed(self) -> None:
        self.programs.catch_up()
        self.service.drain()
