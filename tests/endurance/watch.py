"""What must never be, whatever happens around the service, and how the runs go that look for it."""

import argparse
import json
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Callable

HERE = Path(__file__).resolve().parent
sys.path.insert(0, os.environ.get("ULMO_SIMULATOR", str(HERE.parent.parent / "build/simulator")))
import product  # noqa: E402

BLOCKED = 35.0  # seconds for which the service may be busy with what is done to it here
TAIL = 60  # lines of the journal that a failure shows

# What timers are for: the log lines that begin it and end it, those that come of its timer, and how
# many seconds there are from the first to these at least, less the 5 per cent that a timer may be
# early. SOURCE is the phone whose audio changed last before the beginning.
PURPOSES = {
    "PulseAudio comes up": (
        r"try to start pulseaudio for ", r"there is step to start |stop pulseaudio because",
        r"wait pulseaudio |\S*pactl load-module ", 0),
    "BlueZ comes up": (r"bluez started and wait registration", r"bluez service registered",
                       r"bluez service timeout", 14.2),
    "BlueZ is to be started again": (r"bluezDown down", r"startStartupSequence", r"(?!)", 0),
    "a phone is silent": (
        r"start/restart timer for no play|CONNECTED BUT NOT PLAYING",
        r"forceSyncDown$|AudioSourcePropertyChanged \(\S+\)SOURCE State=",
        r"CONNECTED BUT NOT PLAYING", 9.4),
    "a connection is to be made again": (
        r"load timer for reconnect$|trust for \S+ is true$", r"reconnect$", r"reconnect$", 0),
}


class Wrong(Exception):
    """What must never be."""


def descendants(process: int) -> list[int]:
    """Of a process, as they are called on this side of the namespaces."""
    try:
        children = [int(child) for task in Path(f"/proc/{process}/task").iterdir()
                    for child in (task / "children").read_text().split()]
    except OSError:
        return []  # it has ended
    return children + [deeper for child in children for deeper in descendants(child)]


class Watch:
    """Follows the service through the journal of a product."""

    def __init__(self, running: product.Product) -> None:
        self.product = running
        self.is_agent_registered = False  # the one that runs, at the BlueZ that runs
        self._next = 0  # entry of the journal
        self._settled = 0
        self._alive = {name: set() for name in ("service", "bluetoothd", "agent", "pulseaudio")}
        self._begin_service()

    def _begin_service(self) -> None:
        """One that comes has nothing to do with the one that was."""
        self.is_end_expected = False
        self.purposes: dict[str, tuple[float, str]] = {}  # since when, and the phone's path
        self._source = ""
        self._held = ""
        self._figures: tuple[int, ...] = ()

    def check(self) -> list:
        """Nothing is wrong, and the service answers in time; what it says of itself."""
        begin = time.monotonic()
        answer = self.product.attempt("call GetStatus", timeout=4 * BLOCKED)
        if len(answer.values) != 4 or time.monotonic() - begin > BLOCKED:
            raise Wrong(f"GetStatus is not answered in time: {answer.text}")
        self.follow()
        return answer.values

    def settle(self) -> list:
        """The same, when it has handled what was sent to it so far. Bluetooth has to be on."""
        self._settled += 1
        since = len(self.product.journal)
        self.product.tell("signal /settled org.bluez.Device.PropertyChanged "
                          f"s:Number v:s:{self._settled}")
        self.product.await_line(f"4 *Number={self._settled}", since=since)
        return self.check()

    def wait(self, holds: Callable[[], bool], seconds: float, otherwise: str) -> None:
        deadline = time.monotonic() + seconds
        while not holds():
            if time.monotonic() > deadline:
                raise Wrong(otherwise)
            self.product.follow(0.2)

    def check_growth(self) -> None:
        """In a quiet moment it has as much as in the first one."""
        self._figures = self._figures or self._measure()
        self.wait(lambda: self._measure() == self._figures, 5, "descriptors, children and match "
                  f"rules were {self._figures} and are {self._measure()}")

    def _measure(self) -> tuple[int, ...]:
        service = next(process for process in descendants(os.getpid())
                       if Path(f"/proc/{process}/comm").read_text() == "bluetoothmanage\n")
        figures = [len(os.listdir(f"/proc/{service}/fd")), len(descendants(service))]
        for bus in ("session", "system"):
            statistics = subprocess.run(
                ["busctl", f"--address=unix:path={self.product.out}/{bus}_bus", "call",
                 "org.freedesktop.DBus", "/org/freedesktop/DBus",
                 "org.freedesktop.DBus.Debug.Stats", "GetStats"],
                capture_output=True, text=True, check=True).stdout
            figures.append(int(re.search(r'"MatchRules" u (\d+)', statistics)[1]))
        return tuple(figures)

    def stop_service(self, line: str) -> None:
        """Has it end by that line; in order, except by SIGKILL."""
        self.follow()
        self.is_end_expected = True
        since = len(self.product.journal)
        self.product.attempt(line, timeout=4 * BLOCKED)
        end = self.product.await_line(". service ended*", since=since)
        if line.endswith("KILL"):
            return
        if end.get("status") != 0:
            raise Wrong(end["line"])
        self.wait(lambda: self.follow() or not any(self._alive.values()), BLOCKED,
                  f"left behind: {self._alive}")

    def follow(self) -> None:
        """Reads what is new in the journal."""
        while self._next < len(self.product.journal):
            self._next += 1
            self._read(self.product.journal[self._next - 1])
        for child in self._alive:
            self.wait(lambda: self._is_single(child), 5, f"{child} is there twice")

    def _is_single(self, child: str) -> bool:
        """The journal may hear of the end of one after the start of the next."""
        ended = {entry["pid"] for entry in self.product.journal[self._next:]
                 if entry["kind"] == "end"}
        return len(self._alive[child] - ended) <= 1

    def _read(self, entry: product.Entry) -> None:
        kind = entry["kind"]
        if kind in ("start", "end") and entry["program"] in self._alive:
            self._read_process(entry, entry["program"])
        elif kind == "log":
            self._read_holding(entry["message"])
            self._read_timers(entry["message"], entry["time"])
        elif kind == "reply" and entry["member"] == "RegisterAgent":
            self.is_agent_registered = True
        elif kind == "output" and re.search(r"Sanitizer|runtime error|==\d+==", entry["line"]):
            raise Wrong(f"it reports: {entry['line']}")

    def _read_process(self, entry: product.Entry, program: str) -> None:
        if program in ("agent", "bluetoothd"):
            self.is_agent_registered = False
        if entry["kind"] == "start":
            self._alive[program].add(entry["pid"])
            if program == "service":
                self._begin_service()
        else:
            self._alive[program].discard(entry["pid"])
            if program == "service" and not self.is_end_expected:
                raise Wrong(entry["line"])

    def _read_holding(self, message: str) -> None:
        """At most one phone is accepted."""
        device = re.match(r"Device (\S+) (.*)$", message)
        if device and device[2] == "CONNECTED AND ACCEPTED":
            if self._held not in ("", device[1]):
                raise Wrong(f"accepted beside {self._held}: {message}")
            self._held = device[1]
        elif message == "forceSyncDown" or (device and device[1] == self._held):
            self._held = ""

    def _read_timers(self, message: str, now: float) -> None:
        """None outlives what it is for."""
        for purpose, (begin, end, timer, seconds) in PURPOSES.items():
            since, source = self.purposes.get(purpose, (now + 1, ""))
            if re.match(timer, message) and now - since < seconds:
                raise Wrong(f'it is not so, or not for long, that {purpose}, but: "{message}"')
            if re.match(end.replace("SOURCE", re.escape(source)), message):
                self.purposes.pop(purpose, None)
            if re.match(begin, message):
                self.purposes[purpose] = (now, self._source)
        if change := re.match(r"AudioSourcePropertyChanged \(\S+\)(\S+) State=", message):
            self._source = change[1]


class Run:
    """How long a run is, and what decides its course: the same seed gives the same steps."""

    def __init__(self, description: str) -> None:
        parser = argparse.ArgumentParser(description=description)
        parser.add_argument("--seed", type=int, default=1)
        parser.add_argument("--seconds", type=int, default=300, help="in which steps begin")
        parser.parse_args(namespace=self)
        self.random = random.Random(self.seed)
        self.step = 0

    def play(self, course: Callable[["Run", Watch], None], **options: list | dict) -> int:
        """Plays a course in a product with these options, and returns the exit status. A failure
        says how to repeat it, and keeps the folder."""
        if status := product.check():
            return status
        folder = Path(tempfile.mkdtemp(prefix="endurance."))
        folder.chmod(0o755)
        (folder / "settings.ini").write_text("[BLUETOOTH]\nbt-timeout-reconnect-1=300\n")
        try:
            with product.Product(out=folder, pulse="scripted", **options) as running:
                course(self, Watch(running))
        except (Wrong, product.ProductError) as failure:
            journal = folder / "journal.jsonl"
            for line in journal.read_text().splitlines()[-TAIL:] if journal.exists() else []:
                entry = json.loads(line)
                print(f"{entry['time']:9.3f} {entry['line']}")
            print(f"FAILED in step {self.step}: {failure}\nRepeat this with --seed {self.seed}. "
                  f"The folder is kept: {folder}")
            return 1
        print(f"{self.step} steps, and nothing is wrong")
        shutil.rmtree(folder)
        return 0
