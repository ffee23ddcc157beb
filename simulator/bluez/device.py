"""A phone as the daemon knows it, org.bluez.Device: the radio link to it, its pairing, the search
for its services."""

from __future__ import annotations

from typing import TYPE_CHECKING, Callable

from bluez.audio import SOURCE, Audio
from core.bus import Call
from core.loop import Timer

if TYPE_CHECKING:
    from bluez.adapter import Adapter
    from bluez.phone import Phone

# Milliseconds of product time.
DISCONNECT_DELAY = 2000  # from Disconnect or RemoveDevice to the end of the link
LINK_IDLE = 2000  # link without channels
LINK_IDLE_AFTER_SEARCH = 4000
LINK_SETUP = 40
PAGE_TIMEOUT = 5120
#: From Paired to the daemon's own service search: after an unused link has been dropped.
SEARCH_DELAY = 2200
SEARCH_TIME = 50
LONGEST_PIN = 16


class Device:
    """One that is not bonded is there only as long as its link."""

    def __init__(self, adapter: Adapter, phone: Phone) -> None:
        self.adapter = adapter
        self.phone = phone
        self.audio = Audio(self)
        self.is_bonded = False
        self.is_trusted = False
        self.is_link_up = False
        self.is_pairing = False
        self._paired = False  # the property: the bond as far as it was signalled
        self._name_known = False  # even without the device
        self._connected = False  # the property: the link as far as it was signalled
        self._uuids: list[str] = []
        self._disconnect_calls: list[Call] = []  # answered when the link ends
        self._is_unwanted = False  # after RemoveDevice
        self._page_waiters: list[Callable[[bool], None]] = []
        self._disconnect = Timer()
        self._link = Timer()  # until it is up, or dropped for want of users
        self._search_delay = Timer()
        self._browsing = Timer()  # its services, over the link

    @property
    def path(self) -> str:
        return f"{self.adapter.path}/dev_{self.phone.address.replace(':', '_')}"

    def set_known(self, trusted: bool) -> None:
        """Has it bonded from before, with its services known."""
        self.is_bonded = self.phone.is_bonded = self._paired = self._name_known = True
        self.is_trusted = trusted
        self._uuids = [SOURCE]
        self.adapter.add(self, announced=False)

    def has_service(self, uuid: str) -> bool:
        return uuid in self._uuids

    def handle(self, call: Call) -> None:
        """Answers a call to the object."""
        if call.method == "Device.GetProperties()":
            call.reply("a{sv}", {
                "Address": ("s", self.phone.address), "Name": ("s", self.phone.name),
                "Alias": ("s", self.phone.name), "Paired": ("b", self._paired),
                "Trusted": ("b", self.is_trusted), "Connected": ("b", self._connected),
                "UUIDs": ("as", self._uuids), "Adapter": ("o", self.adapter.path)})
        elif call.method == "Device.SetProperty(sv)":
            self._set_property(call)
        elif call.method == "Device.Disconnect()":
            if self._connected:
                self._request_disconnect(call)
            else:
                call.fail("NotConnected")
        elif not self.has_service(SOURCE) or not self.audio.handle(call):
            call.fail_unknown()

    def _set_property(self, call: Call) -> None:
        name, (kind, value) = call.arguments
        if (name, kind) != ("Trusted", "b"):
            call.fail("InvalidArguments", "Invalid arguments in method call")
            return
        if self.is_trusted != value:
            self.is_trusted = value
            self._changed("Trusted", ("b", value))
        call.reply()

    def _changed(self, name: str, variant: tuple) -> None:
        self.adapter.emit_changed(self.path, "Device", name, variant)

    # ---- the link

    def link_up(self, announced: bool = True) -> None:
        """It has come up; signalled unless the daemon is to hear of something else first."""
        self.adapter.add(self)
        # Whatever is left of the link before is noticed now.
        self.audio.notice_hang_up()
        self.is_link_up = True
        self.phone.note("link-up")
        if announced:
            self.announce_connected()
        self._link.stop()
        self.link_users_changed()
        self._finish_page()

    def announce_connected(self) -> None:
        """Connected = true, with what the link has taught about the phone."""
        self._connected = True
        self._changed("Connected", ("b", True))
        if not self._name_known:
            self._name_known = True
            self._changed("Name", ("s", self.phone.name))
            self._changed("Alias", ("s", self.phone.name))

    def page(self, done: Callable[[bool], None]) -> None:
        """Pages the phone unless the link is up; done gets whether it is up then."""
        def answered() -> None:
            if self.phone.is_in_range and self.adapter.is_powered:
                self.link_up()
            else:
                self._finish_page()
        self._page_waiters.append(done)
        if self.is_link_up:
            self._finish_page()
        elif not self._link.is_active:
            self._link.start(LINK_SETUP if self.phone.is_in_range else PAGE_TIMEOUT, answered)

    def _finish_page(self) -> None:
        waiters, self._page_waiters = self._page_waiters, []
        for waiter in waiters:
            waiter(self.is_link_up)

    def drop_link(self, why: str) -> None:
        """It ends, for that reason."""
        if not self.is_link_up:
            return
        self.is_link_up = False
        self.is_pairing = False
        self.phone.link_went_down(why)
        self._link.stop()
        self._disconnect.stop()
        self._browsing.stop()
        self.adapter.cancel_question(self)
        by_unit = bool(self._disconnect_calls)
        had_audio = self.audio.is_active
        if had_audio and self.adapter.audio_first:
            self.audio.hang_up()
        # The replies come before the signal.
        for call in self._disconnect_calls:
            call.reply()
        self._disconnect_calls = []
        if self._connected:
            self._connected = False
            self._changed("Connected", ("b", False))
        if self._is_unwanted or not self.is_bonded:
            self.remove()
        elif had_audio and not self.adapter.audio_first:
            self.audio.link_lost(by_unit)

    def link_users_changed(self) -> None:
        """Somebody has begun or ceased to use the link: one without users is dropped."""
        if not self.is_link_up:
            return
        if self.is_pairing or self.audio.is_active or self._browsing.is_active:
            self._link.stop()
        elif not self._link.is_active:
            self._link.start(LINK_IDLE, lambda: self.drop_link("nobody uses the link"))

    def _request_disconnect(self, call: Call) -> None:
        self._disconnect_calls.append(call)
        # The stream is not closed first: whatever the phone does in these 2 s still happens.
        if not self._disconnect.is_active:
            self.adapter.emit(self.path, "Device.DisconnectRequested")
            self._disconnect.start(DISCONNECT_DELAY, lambda: self.drop_link("the unit disconnects"))

    def remove_on(self, call: Call) -> None:
        """Adapter.RemoveDevice."""
        if not self.is_bonded or self._is_unwanted or self._browsing.is_active:
            call.fail("DoesNotExist", "Device creation in progress")
        elif self._connected:
            self._is_unwanted = True
            self._request_disconnect(call)
        else:
            self.audio.notice_hang_up()
            self.remove()
            call.reply()

    def remove(self) -> None:
        """The daemon does not know it any more."""
        self.is_bonded = False
        self.adapter.remove(self)
        self.retire()

    def retire(self) -> None:
        """The daemon ends, or forgets it: nothing is signalled any more."""
        if self.is_link_up:
            self.phone.link_went_down("the unit ends the link")
        self.audio.retire()
        for timer in (self._disconnect, self._link, self._search_delay, self._browsing):
            timer.stop()
        self._page_waiters = []
        self._disconnect_calls = []
        self.is_link_up = self._connected = self.is_pairing = self._is_unwanted = False
        if not self.is_bonded:
            # Nothing is left of it, for as long as it does not come again.
            self._paired = self.is_trusted = False
            self._uuids = []

    # ---- pairing

    def start_pairing(self) -> None:
        self.is_pairing = True
        self.link_users_changed()
        if self.adapter.has_simple_pairing:
            self._finish_pairing()
            return

        def answered(agreed: bool, pin: str) -> None:
            if not agreed or not 0 < len(pin) <= LONGEST_PIN:
                self._finish_pairing("the unit gives no PIN")
            else:
                self._finish_pairing("" if pin == self.phone.pin else "the PINs differ")
        self.adapter.ask_agent(self, "RequestPinCode", "", (), answered)

    def _finish_pairing(self, why_not: str = "") -> None:
        self.is_pairing = False
        if why_not:
            self.phone.pairing_finished(why_not)
            if self.audio.is_active:
                self.drop_link("it is not authenticated")
            else:
                self.link_users_changed()
            return
        self.is_bonded = True
        if not self._paired:
            self.announce_paired()
        self.link_users_changed()
        if not self._search_delay.is_active:
            self._search_delay.start(SEARCH_DELAY, lambda: self.page(self._browse))
        self.phone.pairing_finished()
        self.audio.open_when_paired()

    def announce_paired(self) -> None:
        """Signals Paired = true, also when it is the same as before."""
        self._paired = True
        self._changed("Paired", ("b", True))

    # ---- services

    def _browse(self, is_linked: bool) -> None:
        if is_linked:
            self._browsing.start(SEARCH_TIME, self._finish_search)
            self.link_users_changed()

    def _finish_search(self) -> None:
        self.add_service(SOURCE)
        if not self.audio.is_active:
            self._link.start(LINK_IDLE_AFTER_SEARCH, lambda: self.drop_link("nobody uses the link"))

    def add_service(self, uuid: str) -> None:
        if uuid not in self._uuids:
            self._uuids = sorted([*self._uuids, uuid])
            self._changed("UUIDs", ("as", self._uuids))
