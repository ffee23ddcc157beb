"""The product's sound manager as the service meets it."""

from core import loop
from core.bus import ERROR, Call
from core.faults import Faults
from processes.buses import Buses

NAME = "com.orbitalis.ulmo.soundmanager"
METHODS = ("PlayBluetooth()", "StopPlay(ss)")


class SoundManager:
    """Grants every request, but for its faults: it is absent, refuses, takes its time or never
    answers."""

    def __init__(self, faults: Faults, buses: Buses) -> None:
        self._faults = faults
        self._buses = buses

    def update_presence(self) -> None:
        """It is on the session bus under its name, or is not, as the faults say."""
        try:
            bus = self._buses.connection("session", "soundmanager", self._handle)
        except OSError:
            return
        bus.own(NAME, not self._faults.standing("soundmanager", "absent"))

    def _handle(self, call: Call) -> None:
        # The service names no interface.
        if not call.method.endswith(METHODS):
            call.fail_unknown()
            return
        fault = self._faults.next("soundmanager")
        if fault.name == "refuse":
            loop.later(fault.number / 1000, lambda: call.fail(ERROR + "Failed", "it refuses"))
        elif fault.name != "never":
            loop.later(fault.number / 1000, lambda: call.reply("i", 0))
