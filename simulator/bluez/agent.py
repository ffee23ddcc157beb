"""The program "agent": answers the daemon's pairing requests with the PIN of its command line."""

from typing import Callable

from core.bus import Bus, Call, Reply
from core.faults import Faults
from core.loop import Timer
from core.words import PATH

BLUEZ = "org.bluez"


class Agent:
    def __init__(self, address: str, faults: Faults, arguments: list[str],
                 exited: Callable[[int], None]) -> None:
        """address is that of the system bus. exited is called when it ends by itself."""
        option = dict(zip(arguments, arguments[1:]))
        self._path = option["--path"]
        self._delay = int(option["--delay"])  # seconds
        self._capability = option["--capabilites"]  # as the board's program spells it
        self._pin = arguments[-1]
        self._exited = exited
        self._adapter = ""
        self._waiting: list[Call] = []
        self._sleep = Timer()
        self._bus = Bus(address, faults.guard(self._handle))
        self._bus.when_gone(BLUEZ, lambda: exited(0))
        self._bus.call(BLUEZ, "/", "org.bluez.Manager.DefaultAdapter", answered=self._register)

    def _register(self, adapter: Reply) -> None:
        if not adapter.values or not PATH.fullmatch(str(adapter.values[0])):
            self._exited(1)
            return
        self._adapter = adapter.values[0]
        self._bus.call(BLUEZ, self._adapter, "org.bluez.Adapter.RegisterAgent", "os",
                       (self._path, self._capability),
                       lambda reply: self._exited(1) if reply.error else None)

    def stop(self) -> None:
        """SIGTERM: unregisters, and leaves the bus after that."""
        if self._adapter:
            self._bus.call(BLUEZ, self._adapter, "org.bluez.Adapter.UnregisterAgent", "o",
                           (self._path,), lambda reply: self.leave())
        else:
            self.leave()

    def leave(self) -> None:
        self._sleep.stop()
        self._bus.close()

    def _handle(self, call: Call) -> None:
        # The program sleeps through its delay: what comes meanwhile waits.
        self._waiting.append(call)
        self._answer_next()

    def _answer_next(self) -> None:
        while self._waiting and not self._sleep.is_active:
            method = self._waiting[0].method
            if method == "Agent.RequestPinCode(o)":
                self._sleep.start(self._delay * 1000, self._give_pin)
                return
            self._waiting.pop(0).reply()
            if method == "Agent.Release()":
                self._exited(0)

    def _give_pin(self) -> None:
        self._waiting.pop(0).reply("s", self._pin)
        self._answer_next()
