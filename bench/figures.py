"""What is measured: figures of a process, comparisons with a baseline, and how they are shown."""

import operator
import os
import statistics
import subprocess
import time
from collections.abc import Iterable, Iterator
from pathlib import Path

PATIENCE = 30  # seconds; it only matters where something goes wrong
KINDS = {"ratio": ("x", operator.truediv), "difference": ("+", operator.sub),
         "absolute": ("", lambda measured, _: measured)}


class Figures:
    """What the kernel tells of a process."""

    def __init__(self, pid: int):
        self.folder = Path(f"/proc/{pid}")

    def _of_threads(self, file: str) -> Iterator[str]:
        return ((task / file).read_text() for task in (self.folder / "task").iterdir())

    @staticmethod
    def _value(text: str, key: str) -> int:
        return int(text.split(f"\n{key}:")[1].split()[0])

    def resident(self) -> int:
        """KiB, shared pages included."""
        return self._value((self.folder / "smaps_rollup").read_text(), "Rss")

    def switches(self) -> int:
        """How often its threads have given up the processor or were taken off it."""
        return sum(self._value(status, kind) for status in self._of_threads("status")
                   for kind in ("voluntary_ctxt_switches", "nonvoluntary_ctxt_switches"))

    def processor_us(self) -> float:
        return sum(int(schedule.split()[0]) for schedule in self._of_threads("schedstat")) / 1e3

    def holdings(self) -> int:
        """Descriptors, threads and children."""
        children = sum(len(pids.split()) for pids in self._of_threads("children"))
        threads = len(list((self.folder / "task").iterdir()))
        return len(list((self.folder / "fd").iterdir())) + threads + children

    def keep_on_one_processor(self) -> None:
        for task in (self.folder / "task").iterdir():
            os.sched_setaffinity(int(task.name), {0})

    def wait_until_idle(self) -> None:
        deadline = time.monotonic() + PATIENCE
        quiet = 0
        while quiet < 5:
            before = self.switches()
            time.sleep(0.02)
            quiet = quiet + 1 if self.switches() == before else 0
            if time.monotonic() > deadline:
                raise TimeoutError("a process does not come to rest")


class Comparison:
    """Repetitions of a figure and of its baseline, taken in turn, and how the two compare."""

    def __init__(self, what: str, baseline: str, unit: str, kind: str, bar: float):
        self.what, self.baseline, self.unit, self.kind, self.bar = what, baseline, unit, kind, bar
        self.pairs: list[tuple[float, float]] = []

    def add(self, measured: float, baseline: float) -> None:
        self.pairs.append((measured, baseline))

    def compared(self) -> float:
        return statistics.median(KINDS[self.kind][1](*pair) for pair in self.pairs)

    def medians(self) -> list[float]:
        return [statistics.median(column) for column in zip(*self.pairs)]


class Monitor:
    """Listens on a bus in a process of its own, which looks at the clock at once."""

    def __init__(self, address: str, rule: str):
        self.process = subprocess.Popen(["dbus-monitor", "--profile", "--address", address, rule],
                                        stdout=subprocess.PIPE, text=True)
        while "NameLost" not in self.process.stdout.readline():  # it has become one
            pass

    def heard(self) -> float:
        """When the next message came, in seconds since 1970."""
        return float(self.process.stdout.readline().split()[1])

    def end(self) -> None:
        self.process.kill()
        self.process.communicate()


def wake_ups(when: str, figures: Figures, seconds: int) -> Comparison:
    row = Comparison(f"wake-ups in {seconds} s, {when}", "none", "", "absolute", 0)
    figures.wait_until_idle()
    before = figures.switches()
    time.sleep(seconds)
    row.add(figures.switches() - before, 0)
    return row


def number(value: float) -> str:
    if value == round(value):
        return str(round(value))
    return f"{value:.{2 if abs(value) < 10 else 1 if abs(value) < 100 else 0}f}"


def show(rows: Iterable[Comparison]) -> bool:
    """As they come. Returns whether all bars are met."""
    missed = 0
    for row in rows:
        unit = "" if row.kind == "ratio" else row.unit
        texts = [f"{number(value)} {row.unit}" for value in row.medians()]
        texts += [f"{KINDS[row.kind][0]}{number(value)} {unit}"
                  for value in (row.compared(), row.bar)]
        cells = "".join(f"{text.strip().replace('+-', '-'):>11}" for text in texts)
        is_missed = row.compared() > row.bar
        missed += is_missed
        print(f"{row.what:<36}{cells}\n    against {row.baseline}"
              + (": MISSED" if is_missed else ""), flush=True)
    return missed == 0
