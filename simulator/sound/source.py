"""The sound of a phone in real PulseAudio: the source that BlueZ 4's module would make there, fed
with what the phone plays."""

import subprocess
import time
from pathlib import Path

from bluez.phone import Phone
from core import loop
from core.journal import Journal
from sound.recording import FORMAT, FRAME, RATE, TONE

PACTL = "/run/product/host/bin/pactl"
FIFO = Path("/run/pulse/phone.fifo")


def source_name(phone: Phone) -> str:
    return "bluez_source." + phone.address.replace(":", "_")


class Source:
    """It exists while the discovery module is loaded and a stream is open."""

    def __init__(self, journal: Journal) -> None:
        self._journal = journal
        self._phone: Phone | None = None  # whose stream is open; of two the one that came first
        self._discovered = False
        self._loader: subprocess.Popen | None = None
        self._module = ""  # the source's number in PulseAudio; empty while there is none
        self._feeders: list[subprocess.Popen] = []
        self._played = 0.0  # seconds before the last pause
        self._plays_since: float | None = None

    def stream_changed(self, phone: Phone) -> None:
        if self._phone and self._phone is not phone:
            return
        self._phone = phone if phone.stream else None
        is_fed = self._plays_since is not None
        if self._phone and self._module and is_fed != (phone.stream == "playing"):
            self._feed()
        self._update()
        if not self._phone:
            self._played = 0.0

    def set_discovered(self, discovered: bool) -> None:
        """PulseAudio has loaded its discovery module, or has ended, and the source with it."""
        self._discovered = discovered
        self._update()

    def _update(self) -> None:
        wanted = self._discovered and self._phone
        if self._module and not wanted:
            self._remove()
        elif wanted and not self._module and not self._loader:
            self._load(self._phone)

    def _load(self, phone: Phone) -> None:
        # PulseAudio insists on making it.
        FIFO.unlink(missing_ok=True)
        self._loader = subprocess.Popen(
            [PACTL, "load-module", "module-pipe-source", f"source_name={source_name(phone)}",
             f"file={FIFO}", "format=s16le", f"rate={RATE}", "channels=2"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        loop.when_ended(self._loader, lambda: self._loaded(phone))

    def _loaded(self, phone: Phone) -> None:
        answer, complaint = self._loader.communicate()
        failed, self._loader = self._loader.returncode, None
        if failed:
            self._record(f"no source of {phone.handle}: {complaint.decode().strip()}")
            return
        self._module = answer.decode().strip()
        self._record(f"{source_name(phone)} exists")
        self._feed()
        self._update()

    def _remove(self) -> None:
        self._stop_feeding()
        if self._discovered:
            subprocess.run([PACTL, "unload-module", self._module], check=False,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self._module = ""
        self._record("the source of the phone is gone")

    def _record(self, line: str) -> None:
        self._journal.record("pulse", "output", line)

    def _feed(self) -> None:
        """What the phone plays, or its silence, runs into the source in real time from now on."""
        self._stop_feeding()
        if self._phone and self._phone.stream == "playing":
            file = self._phone.audio
            music = [file, *FORMAT, "repeat", "-", "trim", f"{self._played:.3f}"]
            sox = subprocess.Popen(["sox", "-D", *(music if file else ["-n", *FORMAT, *TONE])],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
            self._plays_since = time.monotonic()
            self._feeders.append(sox)
            sound = sox.stdout
        else:
            sound = open("/dev/zero", "rb")
        with sound:
            # The shell waits for PulseAudio to read, not we.
            self._feeders.append(subprocess.Popen(
                ["sh", "-c", 'exec pv -q -L "$0" > "$1"', str(RATE * FRAME), str(FIFO)],
                stdin=sound))

    def _stop_feeding(self) -> None:
        if self._plays_since:
            self._played += time.monotonic() - self._plays_since
        self._plays_since = None
        for process in self._feeders:
            process.kill()
            process.wait()
        self._feeders = []
