"""The virtual BlueZ 4 as far as the service can notice it: the daemon and its adapter on the system
bus, the agent program, and the phones around, which outlive both."""

import os
import re
from pathlib import Path
from typing import Callable

from bluez.adapter import Adapter
from bluez.agent import Agent
from bluez.phone import Phone
from core import loop
from core.bus import Bus
from core.faults import Faults
from core.journal import Journal
from core.words import Refused, typed, unknown_word
from sound.recording import why_unplayable

USUAL_ADAPTER_DELAY = 60  # from the name to the adapter, in real milliseconds
#: Of a new phone.
OPTIONS = {"address=A": "of its radio", "name=TEXT": "what it shows to others",
           "pin=PIN": "what its owner types, without it 7351",
           "audio=FILE": "what it plays (not below /tmp), else two tones",
           "known": "paired from before", "trusted": "paired and accepted from before"}


class BlueZ:
    def __init__(self, journal: Journal, faults: Faults, address: str) -> None:
        """address is that of the system bus."""
        self.phones: dict[str, Phone] = {}
        #: Called when a phone's stream has changed.
        self.stream_changed: list[Callable[[Phone], None]] = []
        #: Called when the agent ends by itself.
        self.agent_exited: Callable[[int], None] = lambda status: None
        self._journal = journal
        self._faults = faults
        self._address = address
        self.adapter = Adapter()
        self._bus: Bus | None = None  # of the daemon
        self._agent: Agent | None = None

    # ---- programs, at most one of each

    def start(self, pid: int, host_name: str) -> None:
        """A bluetoothd lives: it takes org.bluez, and its adapter comes a little later. The faults
        no-name and adapter-delay (in real milliseconds) of "bluetoothd" count."""
        bus = self._bus = Bus(self._address, self._faults.guard(self.adapter.handle))
        if self._faults.standing("bluetoothd", "no-name"):
            return

        def appear() -> None:
            if bus.is_open:
                self.adapter.appear(bus, pid, host_name)
        # The name comes first, always: for a while there is a daemon without an adapter.
        bus.own("org.bluez")
        delay = self._faults.standing("bluetoothd", "adapter-delay")
        loop.later((delay.number if delay else USUAL_ADAPTER_DELAY) / 1000, appear)

    def stop(self, orderly: bool) -> None:
        """It ends, in order (SIGTERM) or not."""
        if orderly:
            self.adapter.release_agent()
        self._bus.close()
        self.adapter.vanish()

    def start_agent(self, arguments: list[str]) -> None:
        """The agent lives: it registers, or ends."""
        def exited(status: int) -> None:
            self.stop_agent(orderly=False)
            self.agent_exited(status)
        self._agent = Agent(self._address, self._faults, arguments, exited)

    def stop_agent(self, orderly: bool) -> None:
        """It ends; in order it unregisters first."""
        agent, self._agent = self._agent, None
        if agent and orderly:
            agent.stop()
        elif agent:
            agent.leave()
            self.adapter.forget_agent()

    # ---- control

    def describe_phones(self, _: list[str]) -> str:
        return ("\n".join(map(Phone.describe, self.phones.values()))
                or 'no phones; "phone add anna" makes one')

    def tell_phone(self, words: list[str]) -> None:
        """Has a phone, or the people around, do what the words say."""
        handle, *words = words
        if handle == "add":
            self._add_phone(words)
        elif handle not in self.phones:
            raise unknown_word("phone", handle, self.phones)
        else:
            self.phones[handle].act(words)
            if words == ["remove"]:
                del self.phones[handle]

    def _add_phone(self, words: list[str]) -> None:
        handle = words[0]
        if not handle or "=" in handle or handle in ("add", *OPTIONS):
            raise Refused("a phone needs a name")
        if handle in self.phones:
            raise Refused(f"there is a phone {handle} already")

        usual = (f"00:1A:7D:DA:71:{last:02X}" for last in range(0x13, 0x100))
        address = next(address for address in usual if not self._handle_of(address))
        phone = Phone(self.adapter, self._journal, handle, address)
        for word in words[1:]:
            field, separator, value = word.partition("=")
            if separator and field in ("address", "name", "pin", "audio"):
                setattr(phone, field, value.upper() if field == "address" else value)
            elif word not in OPTIONS or separator:
                raise unknown_word("option of a phone", word, OPTIONS)
        if not re.fullmatch("([0-9A-F]{2}:){5}[0-9A-F]{2}", phone.address):
            raise Refused(f'"{phone.address}" is not an address')
        if other := self._handle_of(phone.address):
            raise Refused(f"{other} has this address")
        if phone.audio:
            # From where the virtual product was started.
            phone.audio = os.path.join(os.environ["PWD"], phone.audio)
            if why := why_unplayable(Path(phone.audio)):
                is_hidden = phone.audio.startswith("/tmp/")
                raise Refused(why + "; the product's /tmp is another one" * is_hidden)

        self.phones[handle] = phone
        phone.stream_changed = self.stream_changed
        if "known" in words or "trusted" in words:
            phone.device.set_known("trusted" in words)

    def send_signal(self, words: list[str]) -> None:
        if not self._bus or not self._bus.is_open:
            raise Refused("bluetoothd is not running")
        self._bus.emit(words[0], words[1], *typed(words[2:]))

    def set_backend(self, words: list[str]) -> None:
        if words not in (["mgmt"], ["hci"], ["hci", "other"]):
            raise Refused("backend mgmt|hci, or backend hci other")
        self.adapter.is_raw_hci = words[0] == "hci"
        self.adapter.audio_first = "other" in words

    def _handle_of(self, address: str) -> str:
        """What the phone with this address is called; empty when there is none."""
        return next((phone.handle for phone in self.phones.values() if phone.address == address),
                    "")

    def short_name(self, path: str) -> str:
        """"/", "hci0", a phone's name, or the path as it is; whatever the process id in it."""
        match = re.fullmatch(r"/org/bluez/\d+/hci0(?:/dev_(.{17}))?", path)
        if not match:
            return path
        return self._handle_of(match[1].replace("_", ":")) or path if match[1] else "hci0"
