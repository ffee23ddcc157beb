"""The unit's radio and what the daemon shows of it: org.bluez.Manager and org.bluez.Adapter."""

from __future__ import annotations

from typing import Any, Callable, Iterable

from bluez.device import Device
from core import loop
from core.bus import Bus, Call, Reply

AGENT_LIMIT = 60  # seconds of product time

#: Gets whether the agent has agreed, and the PIN if that was asked for.
AgentsAnswer = Callable[[bool, str], None]


class Adapter:
    """The radio's state and the bonded devices outlive the daemon."""

    def __init__(self) -> None:
        #: How the daemon drives the kernel. Through raw HCI, news of audio connections and those of
        #: links wait in the same queue; through the management interface, links come first.
        self.is_raw_hci = False
        #: Raw HCI in which news of audio connections come before those of links.
        self.audio_first = False
        self.takes_streams = False  # for PulseAudio
        self.path = ""
        self.is_powered = False
        #: Pairs without the agent.
        self.has_simple_pairing = False
        self._bus: Bus | None = None
        self._pairable = False  # page scan
        self._discoverable = False  # inquiry scan
        self._discoverable_when_up = False
        self._devices: list[Device] = []
        self._sink_owner: Device | None = None
        self._agent = ""  # its bus name
        self._agent_path = ""
        self._asker: Device | None = None  # for whom the agent is asked
        self._question = 0  # the number of that call

    # ---- the daemon

    def appear(self, bus: Bus, pid: int, name: str) -> None:
        """It is there, under a path with the daemon's process id, and says so on the bus."""
        self._bus = bus
        self.path = f"/org/bluez/{pid}/hci0"
        # The daemon brings the controller up itself, and listens for connections.
        self.is_powered = True
        self._pairable = True
        for device in self._devices:
            device.announce_paired()
        self.emit("/", "Manager.AdapterAdded", "o", self.path)
        self.emit_changed("/", "Manager", "Adapters", ("ao", [self.path]))
        self.emit("/", "Manager.DefaultAdapterChanged", "o", self.path)
        self._changed("Powered", ("b", True))
        self._changed("Name", ("s", name))
        self._changed("Pairable", ("b", True))
        self._changed("Discoverable", ("b", self._discoverable))

    def vanish(self) -> None:
        """The daemon has gone, with its connection to the bus."""
        self._bus = self._asker = None
        self.forget_agent()
        for device in self._devices:
            device.retire()
        self._devices = [device for device in self._devices if device.is_bonded]

    @property
    def is_ready(self) -> bool:
        return self._bus is not None

    @property
    def is_connectable(self) -> bool:
        return self.is_powered and self._pairable

    def handle(self, call: Call) -> None:
        """Answers a call to any object."""
        if call.path == "/":
            self._handle_manager(call)
        elif self.is_ready and call.path == self.path:
            self._handle_adapter(call)
        elif self.is_ready and call.path in self._device_paths():
            self._device_at(call.path).handle(call)
        else:
            call.fail_unknown(has_object=False)

    def _device_at(self, path: str) -> Device | None:
        # RemoveDevice takes any letter case.
        return next((each for each in self._devices if each.path.lower() == path.lower()), None)

    def _handle_manager(self, call: Call) -> None:
        if call.method != "Manager.DefaultAdapter()":
            call.fail_unknown()
        elif self.is_ready:
            call.reply("o", self.path)
        else:
            call.fail("NoSuchAdapter", "No such adapter")

    def _handle_adapter(self, call: Call) -> None:
        if call.method == "Adapter.ListDevices()":
            call.reply("ao", self._device_paths())
        elif call.method == "Adapter.RemoveDevice(o)":
            if device := self._device_at(call.arguments[0]):
                device.remove_on(call)
            else:
                call.fail("DoesNotExist")
        elif call.method == "Adapter.RegisterAgent(os)":
            if self._agent:
                call.fail("AlreadyExists")
                return
            self._agent, self._agent_path = call.sender, call.arguments[0]
            call.reply()
        elif call.method == "Adapter.UnregisterAgent(o)":
            if self._agent != call.sender:
                call.fail("DoesNotExist")
                return
            self.release_agent()
            call.reply()
        else:
            call.fail_unknown()

    def emit(self, path: str, member: str, signature: str = "", *values: Any) -> None:
        """member is Interface.Member. Nothing while the daemon is not there."""
        if self._bus:
            self._bus.emit(path, "org.bluez." + member, signature, values)

    def emit_changed(self, path: str, interface: str, name: str, variant: tuple) -> None:
        self.emit(path, interface + ".PropertyChanged", "sv", name, variant)

    def _changed(self, name: str, variant: tuple) -> None:
        self.emit_changed(self.path, "Adapter", name, variant)

    # ---- the agent

    def ask_agent(self, device: Device, member: str, signature: str, values: Iterable[Any],
                  answer: AgentsAnswer) -> None:
        """Calls it for device with more values. It is asked one thing at a time, and refuses
        whatever else comes meanwhile."""
        if not self._agent or self._asker:
            answer(False, "")
            return

        def answered(reply: Reply) -> None:
            self._asker = None
            answer(not reply.error, str(reply.values[0]) if reply.values else "")
        self._asker = device
        self._question = self._call_agent(member, "o" + signature, (device.path, *values), answered)

    def _call_agent(self, member: str, signature: str = "", values: Iterable[Any] = (),
                    answered: Callable[[Reply], None] = lambda reply: None) -> int:
        return self._bus.call(self._agent, self._agent_path, "org.bluez.Agent." + member, signature,
                              values, answered, AGENT_LIMIT * loop.time_scale)

    def cancel_question(self, device: Device) -> None:
        """What was asked for device is void: the agent gets Cancel, nobody an answer."""
        if self._asker is not device:
            return
        self._bus.drop(self._question)
        self._asker = None
        if self._agent:
            self._call_agent("Cancel")

    def release_agent(self) -> None:
        """It hears that nobody needs it any more."""
        if self._agent:
            self._call_agent("Release")
        self.forget_agent()

    def forget_agent(self) -> None:
        """Its connection to the bus has gone."""
        self._agent = ""

    # ---- the radio

    def hciconfig(self, arguments: list[str]) -> None:
        """What the program with these arguments, "hci0 piscan" and so on, does."""
        command, value = (arguments[1:] + ["", ""])[:2]
        if command in ("up", "down"):
            self._set_powered(command == "up")
        elif command in ("piscan", "noscan"):
            # Pairable first in both directions; links that are up stay up.
            self._set_scan(command == "piscan", command == "piscan")
        elif command == "sspmode":
            self.has_simple_pairing = value == "1"

    def _set_powered(self, powered: bool) -> None:
        if powered == self.is_powered:
            return
        self.is_powered = powered
        if powered:
            self._changed("Powered", ("b", True))
            self._set_scan(True, self._discoverable_when_up)
            return
        # A copy: devices that are not bonded are removed with their link.
        for device in list(self._devices):
            device.drop_link("the unit's radio is switched off")
        self._discoverable_when_up = self._discoverable
        self._set_scan(self._pairable, False)
        self._set_scan(False, False)
        self._changed("Powered", ("b", False))

    def _set_scan(self, pairable: bool, discoverable: bool) -> None:
        if pairable != self._pairable:
            self._pairable = pairable
            self._changed("Pairable", ("b", pairable))
        if discoverable != self._discoverable:
            self._discoverable = discoverable
            self._changed("Discoverable", ("b", discoverable))

    # ---- devices

    def add(self, device: Device, announced: bool = True) -> None:
        """It is on the bus, if it was not; announced unless it is known from before."""
        if device in self._devices:
            return
        self._devices.append(device)
        if announced:
            self.emit(self.path, "Adapter.DeviceCreated", "o", device.path)
            self._changed("Devices", ("ao", self._device_paths()))

    def remove(self, device: Device) -> None:
        if device not in self._devices:
            return
        self._devices.remove(device)
        self._changed("Devices", ("ao", self._device_paths()))
        self.emit(self.path, "Adapter.DeviceRemoved", "o", device.path)

    def take_sink(self, device: Device) -> bool:
        """The only one: false while another device has it."""
        self._sink_owner = self._sink_owner or device
        return self._sink_owner is device

    def release_sink(self, device: Device) -> None:
        if self._sink_owner is device:
            self._sink_owner = None

    def take_streams(self, taken: bool) -> None:
        """PulseAudio takes every stream from now on, or none: one that nobody takes is suspended.
        It has an open one started, whether or not the phone plays."""
        self.takes_streams = taken
        if self._sink_owner:
            self._sink_owner.audio.start_for_client()

    def _device_paths(self) -> list[str]:
        return [device.path for device in self._devices]
