"""A virtual phone: what a person does with it, and how it answers the unit."""

from __future__ import annotations

from typing import Callable, NamedTuple

from bluez.adapter import Adapter
from bluez.audio import ADVANCED, CHANNEL_SETUP, SOURCE
from bluez.device import LINK_SETUP, Device
from core.journal import Journal
from core.loop import Action, Timer
from core.words import Refused, unknown_word

# Milliseconds of product time.
LINK_KEPT = 1900  # after its audio
AUDIO_AFTER_PAIRING = 500  # of a usual phone
AUTO_PLAY = 350  # from an open stream to one that plays by itself

MISHAPS = ("no-link", "not-paired", "refused")


class Phone:
    """It outlives the daemon. Its states go to the journal before the daemon notices: link-up
    paired stream-open playing paused stream-closed link-down, and no-link not-paired refused with
    the reason."""

    def __init__(self, adapter: Adapter, journal: Journal, handle: str, address: str) -> None:
        """handle is what people here call it."""
        self.handle = handle
        self.address = address
        self.name = handle  # what it shows to others
        self.pin = "7351"
        self.audio = ""  # the file that it plays
        self.is_bonded = False  # as far as the phone knows
        self.is_in_range = True
        self.answer = "accept"  # to the unit's audio requests; or "refuse", "ignore"
        #: Called when its stream has changed.
        self.stream_changed: list[Callable[[Phone], None]] = []
        #: The stream: "" while there is none, "paused" or "playing".
        self.stream = ""
        self._adapter = adapter
        self._journal = journal
        self.auto_play = "off"
        self._after_pairing: Action | None = None
        self._step = Timer()  # between the steps of what a person wants
        #: What the unit knows of it.
        self.device = Device(adapter, self)

    def act(self, words: list[str]) -> None:
        """Does a verb with its argument, or has begun to."""
        verb = VERBS.get(words[0])
        if not verb:
            raise unknown_word("phone verb", words[0], VERBS)
        choices = verb.argument.split("|")
        if len(words) - 1 != bool(verb.argument) or len(choices) > 1 and words[1] not in choices:
            raise Refused(f"{words[0]} {verb.argument}".strip())
        verb.check(self)
        verb.act(self, *words[1:])

    def describe(self) -> str:
        """A line for people."""
        own, units = self.is_bonded, self.device.is_bonded
        states = {"paired": own and units, "paired for the phone only": own > units,
                  "paired for the unit only": own < units,
                  "out of range": not self.is_in_range,
                  f"will {self.answer} audio": self.answer != "accept",
                  "playing": self.stream == "playing", "stream open": self.stream == "paused",
                  "linked": self.device.is_link_up and not self.stream}
        return ", ".join([f'{self.handle}  {self.address}  "{self.name}"  pin {self.pin}',
                          *(state for state, holds in states.items() if holds)])

    # ---- what must be so before a person can do something

    def needs_unit(self) -> None:
        self._needs(self.is_in_range, "is out of range")
        if not self._adapter.is_ready:
            raise Refused("the unit's Bluetooth is off, or not ready yet")
        if not self.device.is_link_up and not self._adapter.is_connectable:
            raise Refused("the unit is not connectable")

    def needs_no_bond(self) -> None:
        self.needs_unit()
        self._needs(not (self.is_bonded and self.device.is_bonded), "is paired already")

    def needs_audio(self) -> None:
        self.needs_unit()
        self._needs(not self.stream, "is connected already")
        self._needs(self.is_bonded, "is not paired")

    def needs_link(self) -> None:
        self._needs(self.device.is_link_up, "is not connected")

    def needs_stream(self) -> None:
        self._needs(self.stream != "", f'has no stream; "phone {self.handle} connect" opens one')

    def needs_pause(self) -> None:
        self.needs_stream()
        self._needs(self.stream == "paused", "plays already")

    def needs_play(self) -> None:
        # Also what the unit has started, and the phone does not fill.
        self._needs(self.device.audio.is_started, "does not play")

    def _needs(self, holds: bool, why_not: str) -> None:
        if not holds:
            raise Refused(f"{self.handle} {why_not}")

    # ---- what a person does

    def pair(self) -> None:
        self.open_link(self._start_pairing)

    def connect(self) -> None:
        if self.is_bonded and self.device.is_bonded:
            self.connect_audio()
            return

        def connect_later() -> None:
            self._step.start(AUDIO_AFTER_PAIRING, self.device.audio.phone_connects)
        self.open_link(lambda: self._start_pairing(connect_later))

    def connect_audio(self) -> None:
        if not self.device.is_bonded:
            self._connect_audio_with_old_bond()
            return
        # The daemon may hear of the audio connection before it hears of the link.
        announced = not self._adapter.audio_first or not self.device.has_service(SOURCE)
        is_linked = self.device.is_link_up

        def open_channel() -> None:
            self.device.audio.phone_connects()
            if not announced and not is_linked:
                self.device.announce_connected()
        self.open_link(lambda: self._step.start(CHANNEL_SETUP, open_channel), announced)

    def _connect_audio_with_old_bond(self) -> None:
        # The unit has forgotten the phone, which does not know that: the audio channel arrives with
        # a key that the unit lacks, so the unit asks its agent for a PIN.
        if self._adapter.is_raw_hci:
            # The channel is let through, and the unit takes the old bond for valid at first.
            def open_channel() -> None:
                self.device.audio.phone_connects()
                self.device.announce_paired()
            self.open_link(open_channel)
            return

        # The channel is refused meanwhile, and the link is not announced before it has a key.
        def pair() -> None:
            self._start_pairing()
            self.device.add_service(ADVANCED)
            self.note("refused", "the unit has forgotten the bond")
        self.open_link(pair, announced=False)

    def open_link(self, then: Action, announced: bool = True) -> None:
        self._step.stop()
        if self.device.is_link_up:
            then()
            return

        def answered() -> None:
            try:
                self.needs_unit()
            except Refused as refusal:
                self.note("no-link", str(refusal))
                return
            if not self.device.is_link_up:
                self.device.link_up(announced)
            then()
        self._step.start(LINK_SETUP, answered)

    def _start_pairing(self, then: Action | None = None) -> None:
        self._after_pairing = then
        if not self.device.is_pairing:
            self.device.start_pairing()

    def play(self) -> None:
        self.set_stream("playing")
        self.device.audio.start()

    def pause(self) -> None:
        self.set_stream("paused")
        self.device.audio.phone_suspends()

    def leave(self) -> None:
        """Ends its audio, if there is any, also while it plays, and the link a good while later."""
        if self.device.audio.is_active:
            self.device.audio.hang_up()
            self._step.start(LINK_KEPT, self.leave)
        else:
            self.device.drop_link("the phone leaves")

    def go_out_of_range(self) -> None:
        self.is_in_range = False
        self._step.stop()
        self.device.drop_link("the phone is out of range")

    def remove(self) -> None:
        self.go_out_of_range()
        self.device.remove()

    # ---- what the unit finds and does

    def pairing_finished(self, why_not: str = "") -> None:
        """It is paired unless there is a reason why not."""
        then, self._after_pairing = self._after_pairing, None
        if why_not:
            self.note("not-paired", why_not)
            return
        self.is_bonded = True
        self.note("paired")
        if then:
            then()

    def link_went_down(self, why: str) -> None:
        self._step.stop()
        self._after_pairing = None
        self.set_stream("", "the link is gone")
        self.note("link-down", why)

    def set_stream(self, stream: str, why: str = "") -> None:
        if stream == self.stream:
            return
        was_open, self.stream = bool(self.stream), stream
        if stream == "paused" and not was_open:
            self.note("stream-open", why)
        else:
            self.note(stream or "stream-closed", why)
        for listener in self.stream_changed:
            listener(self)
        if not was_open and self.auto_play == "on":
            self._step.start(AUTO_PLAY, lambda: self.stream == "paused" and self.play())

    def note(self, state: str, why: str = "") -> None:
        """Writes a state to the journal, with the reason why."""
        line = f"* {self.handle} {state}" + (f": {why}" if state in MISHAPS else "")
        self._journal.record("phone", "phone", line, phone=self.handle, state=state,
                             path=self.device.path, **({"why": why} if why else {}))


class Verb(NamedTuple):
    """What a person can do with a phone."""

    help: str
    act: Callable[..., None]
    check: Callable[[Phone], None] = lambda phone: None
    argument: str = ""


def sets(name: str, *value: object) -> Callable[..., None]:
    """Gives an attribute of a phone this value, or else the verb's argument."""
    return lambda phone, *words: setattr(phone, name, *(value or words))


VERBS = {
    "pair": Verb("pairs, without connecting its audio", Phone.pair, Phone.needs_no_bond),
    "connect": Verb("connects its audio, pairs first if it must", Phone.connect, Phone.needs_unit),
    "connect-acl": Verb("opens the radio link only",
                        lambda phone: phone.open_link(lambda: None), Phone.needs_unit),
    "connect-a2dp": Verb("connects its audio, with the bond that it has", Phone.connect_audio,
                         Phone.needs_audio),
    "play": Verb("starts the stream", Phone.play, Phone.needs_pause),
    "pause": Verb("suspends the stream", Phone.pause, Phone.needs_play),
    "close": Verb("closes the stream", lambda phone: phone.device.audio.close_stream(),
                  Phone.needs_stream),
    "leave": Verb("ends everything in order", Phone.leave, Phone.needs_link),
    "drop": Verb("loses the link at once",
                 lambda phone: phone.device.drop_link("the phone drops it"), Phone.needs_link),
    "out-of-range": Verb("cannot be reached any more, nor reach the unit", Phone.go_out_of_range),
    "in-range": Verb("can be reached again", sets("is_in_range", True)),
    "remove": Verb("is taken away, with all that the unit knows of it", Phone.remove),
    "ignore": Verb("will never answer the unit's audio requests", sets("answer", "ignore")),
    "refuse": Verb("will close the unit's audio connections at once", sets("answer", "refuse")),
    "accept": Verb("will accept again", sets("answer", "accept")),
    "auto-play": Verb("whether it plays as soon as a stream is open", sets("auto_play"),
                      argument="on|off"),
    "forget": Verb("forgets its bond with the unit", sets("is_bonded", False)),
    "pin": Verb("will pair with another PIN", sets("pin"), argument="PIN")}
