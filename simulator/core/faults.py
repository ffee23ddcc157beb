"""What goes wrong on demand: "fault TARGET BEHAVIOUR [times=N] [after=N]"."""

import re
from dataclasses import dataclass, field
from typing import Callable

from core import loop
from core.bus import Call
from core.words import Refused, unknown_word

PROGRAMS = ("bluetoothd", "agent", "hciconfig", "sdptool", "modprobe", "connmanctl", "pulseaudio",
            "pactl")
TARGETS = (*PROGRAMS, "soundmanager")
STANDING = ("missing", "absent", "no-name", "adapter-delay")


@dataclass
class Behaviour:
    """How a target behaves for once: "exit" with value "3", "never", ..."""

    name: str = ""  # empty when nothing is wrong
    value: str = ""  # what stands after "=", else empty

    @property
    def number(self) -> int:
        return int(self.value or 0)


@dataclass
class Fault:
    target: str
    argument: str  # what the arguments of a program must contain
    behaviour: Behaviour
    counts: dict[str, int] = field(default_factory=dict)

    @property
    def stands(self) -> bool:
        return self.behaviour.name in STANDING

    def happens(self) -> bool:
        """Whether it goes wrong this time; the counts move on."""
        for count, goes_wrong in (("after", False), ("times", True)):
            if self.counts.get(count, 0) > 0:
                self.counts[count] -= 1
                return goes_wrong
        return "times" not in self.counts

    def replaces(self, other: "Fault") -> bool:
        return ((other.target, other.argument, other.stands)
                == (self.target, self.argument, self.stands)
                and (not self.stands or other.behaviour.name == self.behaviour.name))


def behaviours_of(target: str) -> list[str]:
    """What target can do wrong, as people write it; empty when there is no such target."""
    program = target.partition(":")[0]
    if target == "soundmanager":
        return ["absent", "refuse[=MS]", "delay=MS", "never"]
    if re.fullmatch(r"bluez:[A-Z][A-Za-z]+\.[A-Z][A-Za-z]+", target):
        return ["error[=NAME]", "delay=MS", "never"]
    if program not in PROGRAMS:
        return []
    of_bluetoothd = ["no-name", "adapter-delay=MS"]
    return (["exit=STATUS", "hang", "crash", "ignore-term", "delay=MS", "missing"]
            + (of_bluetoothd if program == "bluetoothd" else []))


def _is_one_of(known: list[str], word: str) -> bool:
    """Whether it is one of those, which say where a value has its place and what it is."""
    forms = "|".join(known).replace("[", "(").replace("]", ")?").replace("NAME", r"[\w.]+")
    return re.fullmatch(re.sub("MS|STATUS|N\\b", r"\\d+", forms), word) is not None


class Faults:
    def __init__(self) -> None:
        self._faults: list[Fault] = []

    def add(self, words: list[str]) -> None:
        """Lays a fault: the target ("pactl:load-module", "bluez:Device.Disconnect",
        "soundmanager", ...), the behaviour and the counts."""
        known = behaviours_of(words[0])
        if not known and words[0].startswith("bluez:"):
            raise Refused(f'"{words[0][6:]}" is not Interface.Method')
        if not known:
            raise unknown_word("program", words[0].partition(":")[0], TARGETS)

        # The argument of a program may have blanks.
        places = (at for at in range(1, len(words)) if _is_one_of(known, words[at]))
        place = next(places, len(words))
        target, argument = " ".join(words[:place]), ""
        is_method = target.startswith("bluez:")
        if place == len(words) or (place > 1 and (is_method or ":" not in target)):
            raise Refused("its behaviours are " + " ".join(known))
        if not is_method:
            target, _, argument = target.partition(":")
        name, _, value = words[place].partition("=")
        fault = Fault(target, argument, Behaviour(name, value))
        for word in words[place + 1:]:
            if not _is_one_of(["times=N", "after=N"], word):
                raise Refused(f'"{word}" is neither times=N nor after=N')
            count, _, number = word.partition("=")
            fault.counts[count] = int(number)
        if fault.stands and (argument or fault.counts):
            raise Refused(name + " holds always, until the fault is cleared")
        self._faults = [other for other in self._faults if not fault.replaces(other)] + [fault]

    def clear(self, target: str) -> None:
        """Takes the faults of target away, or all when it is empty."""
        if target and target != "bluez" and not behaviours_of(target):
            raise unknown_word("program", target, [*TARGETS, "bluez"])
        self._faults = [fault for fault in self._faults if target and not
                        f"{fault.target}:{fault.argument}:".startswith(target + ":")]

    def next(self, target: str, arguments: str = "") -> Behaviour:
        """The behaviour of target for this once. arguments may narrow it."""
        for fault in self._faults:
            if (fault.target == target and not fault.stands and fault.argument in arguments
                    and fault.happens()):
                return fault.behaviour
        return Behaviour()

    def standing(self, target: str, name: str) -> Behaviour | None:
        """What holds until it is cleared, and next() never gives."""
        return next((fault.behaviour for fault in self._faults
                     if fault.target == target and fault.behaviour.name == name), None)

    def guard(self, handle: Callable[[Call], None]) -> Callable[[Call], None]:
        """handle, of calls to BlueZ, for those that no fault keeps from it."""
        def guarded(call: Call) -> None:
            fault = self.next("bluez:" + call.method.partition("(")[0])
            if not call.interface.startswith("org.bluez."):
                call.fail_unknown()
            elif fault.name == "error":
                call.fail(fault.value or "Failed")
            elif fault.name == "delay":
                loop.later(fault.number / 1000, lambda: call.bus.is_open and handle(call))
            elif fault.name != "never":
                handle(call)
        return guarded
