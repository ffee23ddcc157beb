"""The one loop of the product: what is to be done when something can be read, or later."""

import os
import sched
import select
import selectors
import subprocess
import time
from typing import Any, Callable

Action = Callable[[], object]

_selector = selectors.DefaultSelector()
_timers = sched.scheduler(time.monotonic)
_runs = True
#: Factor of all durations of product time that begin from now on; 0.05 is twenty times as fast.
time_scale = 1.0


def watch(file: Any, readable: Action, writable: Action | None = None) -> None:
    """Calls readable whenever there is something to read, or the end, and writable if given."""
    events = selectors.EVENT_READ | (selectors.EVENT_WRITE if writable else 0)
    known = file in _selector.get_map()
    (_selector.modify if known else _selector.register)(file, events, (readable, writable))


def forget(file: Any) -> None:
    """To be called before a file that is watched is closed."""
    _selector.unregister(file)


def later(seconds: float, action: Action) -> None:
    """Calls action once."""
    _timers.enter(seconds, 0, action)


def when_ended(process: subprocess.Popen, action: Action) -> None:
    """Calls action once it has ended and may be waited for."""
    end = os.pidfd_open(process.pid)

    def ended() -> None:
        forget(end)
        os.close(end)
        action()
    watch(end, ended)


def run() -> None:
    """Returns after end()."""
    while _runs:
        wait = _timers.run(blocking=False)
        for key, events in _selector.select(wait if _runs else 0):
            for event, action in zip((selectors.EVENT_READ, selectors.EVENT_WRITE), key.data):
                if events & event and _is_due(key, event):
                    action()


def _is_due(key: selectors.SelectorKey, event: int) -> bool:
    """What was done before may have put an end to this one, or have read what there was: who reads
    then waits for ever."""
    reads = [key.fd] if event == selectors.EVENT_READ else []
    writes = [] if reads else [key.fd]
    return _selector.get_map().get(key.fd) == key and any(select.select(reads, writes, [], 0))


def end() -> None:
    global _runs
    _runs = False


class Timer:
    """A single shot of product time, which goes on for BlueZ and the phones."""

    def __init__(self) -> None:
        self._shot: sched.Event | None = None

    def start(self, milliseconds: float, action: Action) -> None:
        """Has action done after so much product time, instead of anything before."""
        self.start_real(milliseconds * time_scale, action)

    def start_real(self, milliseconds: float, action: Action) -> None:
        def fire() -> None:
            self._shot = None
            action()
        self.stop()
        self._shot = _timers.enter(milliseconds / 1000, 0, fire)

    def stop(self) -> None:
        if self._shot:
            _timers.cancel(self._shot)
        self._shot = None

    @property
    def is_active(self) -> bool:
        return self._shot is not None
