"""The audio connection between a device and the unit, org.bluez.AudioSource: a signalling channel,
and over it one stream, which needs the unit's only sink."""

from __future__ import annotations

import time
from enum import Enum, auto
from typing import TYPE_CHECKING

from core.bus import Call
from core.loop import Action, Timer

if TYPE_CHECKING:
    from bluez.device import Device

#: A phone with this service has org.bluez.AudioSource.
SOURCE = "0000110a-0000-1000-8000-00805f9b34fb"
ADVANCED = "0000110d-0000-1000-8000-00805f9b34fb"  # what the agent is asked for

# Milliseconds of product time.
CHANNEL_SETUP = 20
ANSWER = 15  # one answer of a phone
ANSWER_LIMIT = 6000
QUESTIONS = 4  # discovery, capabilities, configuration, opening
PHONE_SETUP = 60  # from a phone's signalling channel to its configuration
SESSION_IDLE = 1000  # signalling channel without users
UNUSED_STREAM = 20000  # stream opened by the phone and never started
AUTO_SUSPEND = 5000  # real ones; stream started while no local client has taken it
CONNECT_GRACE = 2000  # from a lost connection to the failure of Connect
HANG_UP_NOTICED = 20  # from a link's end to the dead audio connection's

#: The same after Device.Disconnect, in real milliseconds: the caller's speed does not scale.
DISCONNECT_NOTICED = 60


class Phase(Enum):
    IDLE = auto()
    CONNECTING = auto()
    CONFIGURING = auto()
    WAITING = auto()  # signalling without users
    OPEN = auto()
    PLAYING = auto()
    DYING = auto()  # its link has gone


class Audio:
    def __init__(self, device: Device) -> None:
        self._device = device
        self._adapter = device.adapter
        self._phone = device.phone
        self._state = "disconnected"
        self._phase = Phase.IDLE
        self._is_authorised = False  # by the agent, for the life of the device
        self._disconnected_at = 0.0  # when the unit has ended the link
        self._connect: Call | None = None
        self._next = Timer()  # what happens next by itself
        self._grace = Timer()  # until Connect fails

    @property
    def is_active(self) -> bool:
        return self._phase != Phase.IDLE

    @property
    def is_started(self) -> bool:
        return self._phase == Phase.PLAYING

    # ---- methods

    def handle(self, call: Call) -> bool:
        """Answers a call to the object; false when there is no such method."""
        if call.method == "AudioSource.Connect()":
            self._connect_called(call)
        elif call.method == "AudioSource.GetProperties()":
            call.reply("a{sv}", {"State": ("s", self._state)})
        else:
            return False
        return True

    def _connect_called(self, call: Call) -> None:
        # By the clock, since the timer may be late on a busy machine.
        is_early = (time.monotonic() - self._disconnected_at) * 1000 < DISCONNECT_NOTICED
        if self._phase == Phase.DYING and is_early:
            if self._adapter.is_raw_hci:
                call.fail("AlreadyConnected")
            else:
                call.fail("Failed", "Failed to create a stream")
            return
        self.notice_hang_up()
        if self._phase in (Phase.OPEN, Phase.PLAYING):
            call.fail("AlreadyConnected")
        elif self._connect:
            call.fail("InProgress", "Operation already in progress")
        elif not self._adapter.is_powered:
            call.fail("Failed", "Unable to get a session")
        else:
            self._connect = call
            # In other phases it joins what is being set up.
            if self._phase == Phase.WAITING:
                self._configure(QUESTIONS)
            elif self._phase == Phase.IDLE:
                self._phase = Phase.CONNECTING
                self._device.link_users_changed()
                # Before the link can exist: "connecting" always precedes Connected = true here.
                self._set_state("connecting")
                self._device.page(
                    lambda is_up: self._open_signalling() if is_up else self.hang_up(2))

    def _fail_connect(self) -> None:
        self._grace.stop()
        if self._connect:
            self._connect.fail("Failed", "Stream setup failed")
        self._connect = None

    # ---- set up by the unit

    def _open_signalling(self) -> None:
        # Failures before the signalling channel is usable are signalled twice.
        self._next.start(CHANNEL_SETUP, lambda: self._configure(QUESTIONS)
                         if self._phone.is_bonded and self._phone.answer != "refuse"
                         else self.hang_up(2))

    def _configure(self, questions: int) -> None:
        """The unit asks the next of its questions and those that follow."""
        self._phase = Phase.CONFIGURING
        self._ask(lambda: self._answered(questions))

    def _answered(self, questions: int) -> None:
        if questions == 1:
            self._opened()
        elif questions != 2:
            self._configure(questions - 1)
        elif self._adapter.take_sink(self._device):
            self._device.add_service(SOURCE)
            self._configure(1)
        else:
            self._fail_connect()
            self.close_stream()

    def _ask(self, answered: Action) -> None:
        """Has answered done when the phone answers, or gives the connection up."""
        if self._phone.answer == "ignore":
            self._next.start(ANSWER_LIMIT, lambda: self.hang_up(1, "the phone does not answer"))
        else:
            self._next.start(ANSWER, answered)

    # ---- set up by the phone

    def phone_connects(self) -> None:
        """It opens the signalling channel over a link that is up, and a stream."""
        if self.is_active:
            return  # the unit was faster
        self._phase = Phase.CONNECTING
        self._device.link_users_changed()
        if self._device.has_service(SOURCE):
            self._set_state("connecting")
        else:
            self._device.add_service(ADVANCED)
        if self._device.is_trusted or self._is_authorised:
            self._authorised()
            return

        def answered(agreed: bool, _: str) -> None:
            if self._phase != Phase.CONNECTING:
                return
            self._is_authorised = agreed
            if agreed:
                self._authorised()
            else:
                self._phone.note("refused", "nobody authorises its audio")
                self.hang_up()
        self._adapter.ask_agent(self._device, "Authorize", "s", (ADVANCED,), answered)

    def _authorised(self) -> None:
        # Raw HCI lets the channel through before it has checked the key of the link.
        if not self._device.is_bonded:
            self._device.start_pairing()
        self._phase = Phase.CONFIGURING
        self._next.start(PHONE_SETUP, self._phone_configures)

    def _phone_configures(self) -> None:
        if not self._adapter.take_sink(self._device):
            self._phone.note("refused", "the unit plays another phone")
            self._fail_connect()
            self.close_stream()
            return
        self._device.add_service(SOURCE)
        self._next.start(2 * ANSWER, self.open_when_paired)

    def open_when_paired(self) -> None:
        """A stream that the phone has configured may wait for the bond."""
        is_configured = self._phase == Phase.CONFIGURING and not self._next.is_active
        if is_configured and not self._device.is_pairing:
            self._opened(by_phone=True)

    # ---- the stream

    def _opened(self, by_phone: bool = False) -> None:
        self._phase = Phase.OPEN
        self._next.stop()
        if by_phone:
            self._next.start(UNUSED_STREAM, lambda: self.close_stream("nobody starts it"))
        self._phone.set_stream("paused")
        if self._connect:
            self._connect.reply()
        self._connect = None
        self._set_state("connected")
        self.start_for_client()

    def start_for_client(self) -> None:
        if self._adapter.takes_streams and self._phase == Phase.OPEN:
            self._ask(self.start)

    def start(self) -> None:
        """By the phone or the unit, whoever is first."""
        if self.is_started:
            return
        self._phase = Phase.PLAYING
        self._set_state("playing")
        # Whoever takes it does so in real time.
        self._next.start_real(AUTO_SUSPEND, self._suspend_unless_taken)

    def _suspend_unless_taken(self) -> None:
        def suspend() -> None:
            self._phone.set_stream("paused", "nobody takes it: the unit suspends it")
            self.phone_suspends()
        if not self._adapter.takes_streams:
            self._ask(suspend)

    def phone_suspends(self) -> None:
        self._phase = Phase.OPEN
        self._next.stop()
        self._set_state("connected")

    def close_stream(self, why: str = "") -> None:
        """Signals nothing: "disconnected" comes with the end of the signalling channel."""
        self._phone.set_stream("", why)
        self._adapter.release_sink(self._device)
        self._phase = Phase.WAITING
        self._next.start(SESSION_IDLE, self.hang_up)

    # ---- the end

    def link_lost(self, by_unit: bool) -> None:
        """The daemon notices a little later. After Device.Disconnect, by the unit, a Connect that
        comes before that fails."""
        self._phase = Phase.DYING
        self._adapter.release_sink(self._device)
        self._disconnected_at = time.monotonic() if by_unit else 0.0
        if by_unit:
            self._next.start_real(DISCONNECT_NOTICED, self.hang_up)
        else:
            self._next.start(HANG_UP_NOTICED, self.hang_up)

    def notice_hang_up(self) -> None:
        if self._phase == Phase.DYING:
            self.hang_up()

    def hang_up(self, times: int = 1, why: str = "") -> None:
        """The signalling channel is closed, which is signalled so many times."""
        self._phase = Phase.IDLE
        self._next.stop()
        self._phone.set_stream("", why)
        self._adapter.release_sink(self._device)
        # First, so that the unused link is dropped before a waiting Connect fails, both 2 s later.
        self._device.link_users_changed()
        for _ in range(times):
            self._set_state("disconnected")
        if self._connect and not self._grace.is_active:
            self._grace.start(CONNECT_GRACE, self._fail_connect)

    def retire(self) -> None:
        """The device goes: the connection ends without a signal."""
        self._phase = Phase.IDLE
        self._next.stop()
        self._adapter.release_sink(self._device)
        self._fail_connect()
        self._is_authorised = False
        self._state = "disconnected"

    def _set_state(self, state: str) -> None:
        if self._device.has_service(SOURCE):
            self._state = state
            self._adapter.emit_changed(self._device.path, "AudioSource", "State", ("s", state))
