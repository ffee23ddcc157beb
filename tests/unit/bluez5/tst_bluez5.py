#!/usr/bin/python3
"""tst_bluez5.py FOLDER [-k TEST]: the programs in that folder, between a BlueZ 5 that dbusmock
plays on the machine's bus and, on the product's bus, the service and PulseAudio."""
import os
import socket
import subprocess
import sys
import tempfile
import time
import unittest
from operator import attrgetter

import dbus
import dbusmock
from dbus.lowlevel import (HANDLER_RESULT_HANDLED, HANDLER_RESULT_NOT_YET_HANDLED, ErrorMessage,
                           MethodCallMessage, MethodReturnMessage, SignalMessage)
from dbus.mainloop.glib import DBusGMainLoop
from dbusmock.mockobject import DBusMockObject, objects
from gi.repository import GLib

DBusGMainLoop(set_as_default=True)
FOLDER, PATIENCE = sys.argv[1], 30  # seconds
SOURCE, SINK = (f"0000110{digit}-0000-1000-8000-00805f9b34fb" for digit in "ab")
PATHS = {name: "/org/bluez/hci0" + below for name, below in (
    ("stream", "/dev_00_AA_01_01_00_01/sep1/fd7"), ("anna", "/dev_00_AA_01_01_00_01"),
    ("bert", "/dev_00_AA_01_01_00_02"), ("hci0", ""))}
VALUES = {name: dbus.ObjectPath(path) for name, path in PATHS.items()} | {
    "/source": dbus.ObjectPath("/source"), "source": dbus.Dictionary({"UUID": SOURCE}, "sv"),
    "/sink": dbus.ObjectPath("/sink"), "sink": dbus.Dictionary({"UUID": SINK}, "sv"),
    "SBC": dbus.Array(b"\xff\xff\x02\xfa", "y"), "zeros": dbus.Array(bytes(4), "y"),
    "short": dbus.Array(b"\xff", "y"),
    "40": dbus.UInt16(40, variant_level=1), "672": dbus.UInt16(672),
    "descriptor": dbus.types.UnixFd(2), "adapter": dbus.Array(["org.bluez.Adapter1"]),
    "strange": dbus.Dictionary({"State": 5, "Device": dbus.types.UnixFd(2)}, "sv")}

# Steps of the anna that BlueZ 5 shows, of others, and after ">" all that the service hears of it.
IS_THERE = "anna is_there > hci0 DeviceCreated anna;"
OPENS = "anna opens > anna State connecting > anna State connected;"
COMES = f"{IS_THERE} anna links > anna Connected 1; {OPENS}"
PLAYS = "anna tells pending > anna State playing;"
LEAVES = "anna closes > anna State disconnected; anna links 0 > anna Connected 0;"
CONNECTS = f"""{IS_THERE} client asks anna AudioSource.Connect > anna State connecting;
    bluez5 sees anna ConnectProfile {SOURCE};
    client asks anna AudioSource.Connect > Connect InProgress; anna links > anna Connected 1;
    bluez5 refuses ConnectProfile br-connection-create-socket;"""
DISCONNECTS = "bluez5 answers Disconnect > Disconnect ok; anna links 0 > anna Connected 0;"
REGISTERS = """pulse asks / ObjectManager.GetManagedObjects; pulse sees GetManagedObjects hci0;
    pulse asks hci0 Media1.RegisterApplication hci0 sink; pulse sees RegisterApplication UnknownM;
    pulse asks hci0 Media1.RegisterEndpoint /source source; pulse sees RegisterEndpoint ok;
    pulse asks hci0 Media1.RegisterEndpoint /sink sink; pulse sees RegisterEndpoint ok;"""
TAKES = "pulse asks stream MediaTransport1.TryAcquire;"
STORIES = {
    "A phone comes by itself, plays, pauses and leaves; then it is out of range": f"""
        {COMES} {PLAYS} anna tells idle > anna State connected;
        client asks anna AudioSource.Connect > Connect AlreadyConnected; {LEAVES}
        client asks anna Device.Disconnect > Disconnect NotConnected;
        anna links > anna Connected 1; {OPENS}
        anna links 0; anna closes > anna State disconnected > anna Connected 0""",
    "The link of a new phone is told with the phone, that of a quick one never": """
        anna is_there 1 > hci0 DeviceCreated anna > anna Connected 1;
        anna opens elsewhere; stream is_forgotten; anna links 0 > anna Connected 0;
        anna opens > anna Connected 1 > anna State connecting > anna State connected;
        anna closes > anna State disconnected > anna Connected 0""",
    "The unit connects a phone, which BlueZ 5 refuses once, and disconnects it": f"""
        {CONNECTS} bluez5 sees anna ConnectProfile; anna opens; bluez5 sees SetConfiguration ok;
        bluez5 refuses ConnectProfile br-connection-busy > Connect ok > anna State connected;
        client asks anna Device.Disconnect; anna closes > anna State disconnected; {DISCONNECTS}""",
    "The unit cannot connect a phone, and disconnects it before it is connected": f"""
        {CONNECTS} bluez5 refuses ConnectProfile br-connection-unknown;
        bluez5 sees anna ConnectProfile; client asks anna Device.Disconnect > anna State disconnected;
        bluez5 refuses ConnectProfile br-connection-canceled > Connect Failed; {DISCONNECTS}
        client asks anna AudioSource.Connect > anna State connecting; anna links > anna Connected 1;
        bluez5 refuses ConnectProfile br-connection-busy;
        client asks anna Device.Disconnect > anna State disconnected > Connect Failed;
        bluez5 lacks ConnectProfile; {DISCONNECTS}""",
    "A phone is removed while it is connected, and another while it connects": f"""
        {COMES} anna is_forgotten > anna State disconnected > anna Connected 0;
        bert is_there > hci0 DeviceCreated bert;
        client asks bert AudioSource.Connect > bert State connecting;
        bert is_forgotten; bluez5 refuses ConnectProfile br-connection-canceled > Connect Failed""",
    "What sends no sound is no phone": f"""
        bert is_there 0 {SINK}; anna is_there 0 - input-keyboard""",
    "BlueZ 5 tries to connect for longer than BlueZ 4": f"""
        {IS_THERE} client asks anna AudioSource.Connect > anna State connecting > Connect Failed
            > anna State disconnected > anna Connected 0;
        bluez5 sees anna Disconnect; bluez5 answers ConnectProfile""",
    "BlueZ 5 refuses to connect for longer than BlueZ 4 tries": f"""
        {IS_THERE} bluez5 holds.remove ConnectProfile; client asks anna AudioSource.Connect
            > anna State connecting > Connect Failed > anna State disconnected > anna Connected 0;
        bluez5 sees anna Disconnect; bluez5 holds.add ConnectProfile""",
    "A second phone is refused and removed, and the first one plays on": f"""
        {COMES} {PLAYS} anna is_taken; bert is_there > hci0 DeviceCreated bert;
        bert links > bert Connected 1;
        client asks bert Device.Disconnect; bluez5 answers Disconnect > Disconnect ok;
        bert links 0 > bert Connected 0; bert links > bert Connected 1;
        client asks hci0 Adapter.RemoveDevice bert; bluez5 sees hci0 RemoveDevice bert;
        bert links 0 > RemoveDevice ok > bert Connected 0; bert is_forgotten;
        bluez5 answers RemoveDevice; {REGISTERS} {TAKES} pulse hears; {LEAVES}""",
    "PulseAudio is there before the phone, and turns it down": f"""
        {REGISTERS} {COMES} pulse sees /sink SetConfiguration stream;
        pulse sees / InterfacesAdded anna {SOURCE}; anna is_shown; {PLAYS} anna is_taken;
        anna is_lost; pulse sees stream PropertiesChanged pending;
        pulse lacks PropertiesChanged idle; {TAKES}
        pulse hears; pulse sees TryAcquire 672 672;
        pulse orders stream Properties.Set org.bluez.MediaTransport1 Volume 40;
        pulse sees stream PropertiesChanged Volume 40; pulse asks stream MediaTransport1.Release;
        bluez5 answers Release; pulse sees Release ok; pulse lacks None; {LEAVES}
        pulse sees /sink ClearConfiguration stream""",
    "Without PulseAudio the sound is thrown away, before it and after it": f"""
        {COMES} {PLAYS} anna is_taken; anna tells active; anna is_lost;
        pulse sees stream PropertiesChanged active; {REGISTERS}
        pulse sees /sink SetConfiguration stream; pulse sees stream PropertiesChanged active;
        {TAKES} pulse hears; pulse bus.close; bluez5 answers Release;
        anna tells idle > anna State connected;
        {PLAYS} anna is_taken; anna is_lost; sound close; {LEAVES}""",
    "PulseAudio ends while it waits for the sound, which is thrown away then": f"""
        {REGISTERS} {COMES} {PLAYS} {TAKES} pulse ends;
        client asks / Manager.DefaultAdapter > DefaultAdapter hci0;
        anna is_taken; client asks / Manager.DefaultAdapter > DefaultAdapter hci0;
        anna is_lost; {LEAVES}""",
    "Wrong and late answers of BlueZ 5 cost PulseAudio no more than the stream": f"""
        {REGISTERS} {COMES} {PLAYS} bluez5 refuses TryAcquire no;
        pulse asks stream MediaTransport1.Release; bluez5 answers Release; pulse sees Release ok;
        anna tells idle > anna State connected; {TAKES} bluez5 refuses TryAcquire no;
        pulse sees TryAcquire Failed; {TAKES} bluez5 answers TryAcquire x; pulse sees TryAcquire;
        {TAKES} bluez5 answers TryAcquire descriptor; pulse sees TryAcquire;
        {TAKES} bluez5 answers TryAcquire 672 672 descriptor; pulse sees TryAcquire;
        {TAKES} bluez5 sees stream TryAcquire; {LEAVES}
        bluez5 answers TryAcquire descriptor 672 672; pulse sees TryAcquire""",
    "Nonsense from either bus is refused, and changes nothing": f"""
        bluez5 asks registered MediaEndpoint1.SetConfiguration hci0 strange;
        bluez5 sees SetConfiguration Invalid;
        bluez5 asks registered MediaEndpoint1.SetConfiguration stream strange;
        bluez5 sees SetConfiguration Invalid; {COMES} bluez5 signals anna Properties.PropertiesChanged x;
        bluez5 signals / ObjectManager.InterfacesAdded x;
        bluez5 signals / ObjectManager.InterfacesAdded anna sink;
        bluez5 signals / ObjectManager.InterfacesRemoved hci0 org.bluez.Adapter1;
        stranger signals / ObjectManager.InterfacesRemoved hci0 adapter;
        bluez5 asks registered MediaEndpoint1.SetConfiguration stream strange;
        bluez5 sees SetConfiguration Invalid;
        client asks stream MediaTransport1.TryAcquire > TryAcquire NotAuthorized;
        bluez5 asks registered MediaEndpoint1.SelectConfiguration x;
        bluez5 sees SelectConfiguration Unknown;
        bluez5 asks registered MediaEndpoint1.SelectConfiguration zeros;
        bluez5 sees SelectConfiguration Inv;
        bluez5 asks registered MediaEndpoint1.SelectConfiguration short;
        bluez5 sees SelectConfiguration Inv;
        bluez5 asks registered MediaEndpoint1.SelectConfiguration SBC; bluez5 sees (33) (21) (53);
        client asks hci0 Media1.RegisterEndpoint x strange > RegisterEndpoint UnknownMethod;
        client asks hci0 Adapter.RemoveDevice x > RemoveDevice UnknownMethod;
        client asks hci0 Adapter.RemoveDevice bert > RemoveDevice DoesNotExist;
        client asks bert AudioSource.Connect > Connect UnknownMethod;
        client asks anna Device.SetProperty Trusted 40 > SetProperty InvalidArguments; {LEAVES}"""}
VISIT = f"""{COMES} {PLAYS} anna is_taken; anna is_lost; {REGISTERS} {TAKES} pulse hears;
    client asks anna Device.Disconnect; anna closes > anna State disconnected; {DISCONNECTS}
    client asks anna AudioSource.Connect > anna State connecting; anna links > anna Connected 1;
    bluez5 refuses ConnectProfile br-connection-unknown; bluez5 sees ConnectProfile"""


def await_that(holds):
    """Lets messages come until it does."""
    deadline = time.monotonic() + PATIENCE
    timer = GLib.timeout_add(20, lambda: True)
    while not holds():
        if time.monotonic() > deadline:
            raise AssertionError("this has not come, but:\n" + "\n".join(Peer.journal[-20:]))
        GLib.MainContext.default().iteration(True)
    GLib.source_remove(timer)


def is_listening() -> bool:
    """The bus, whose socket is there before: dbusmock waits for that."""
    try:
        dbus.bus.BusConnection(os.environ["DBUS_SYSTEM_BUS_ADDRESS"]).close()
        return True
    except dbus.exceptions.DBusException:
        return False


def full(interface: str) -> str:
    is_common = interface in ("ObjectManager", "Properties")
    return ("org.freedesktop.DBus." if is_common else "org.bluez.") + interface


def valued(words) -> list:
    return [VALUES.get(word, word) if isinstance(word, str) else word for word in words]


class Peer:
    """On a bus, with a line for each call, answer and signal (of its rules) that comes."""
    journal, registered, holds = [], [], {"ConnectProfile", "Disconnect", "RemoveDevice",
                                          "TryAcquire", "Release"}

    def __init__(self, test, bus: str, *rules: str):
        self.bus = dbus.bus.BusConnection(os.environ[f"DBUS_{bus}_BUS_ADDRESS"])
        self.bus.set_exit_on_disconnect(False)
        test.addCleanup(self.bus.close)
        self.test = test
        self.lines, self.held, self.given = [], {}, []
        for rule in rules:
            self.bus.add_match_string(rule)
        self.bus.add_message_filter(self._receive)

    def _keep(self, *words):
        line = " ".join(map(str, words)).replace("PropertyChanged ", "")
        for name, path in PATHS.items():
            line = line.replace(path, name)
        self.lines.append(line)
        self.journal.append(line)
        self.given += [word for word in words if isinstance(word, dbus.types.UnixFd)]

    def _receive(self, _, message):
        member, arguments = message.get_member(), message.get_args_list()
        self._keep(message.get_path(), member, *arguments)
        if member in ("RegisterAgent", "RegisterEndpoint"):
            self.registered[:] = message.get_sender(), arguments[0]
        if message.get_type() == 1 and member in ("SetConfiguration", "ClearConfiguration"):
            self.bus.send_message(MethodReturnMessage(message))
        elif message.get_type() == 1 and member in self.holds:
            self.held[member] = message
        else:
            return HANDLER_RESULT_NOT_YET_HANDLED
        return HANDLER_RESULT_HANDLED

    def sees(self, *texts: str):
        """A line with all of these, now or later, each line once."""
        def found():
            return [line for line in self.lines if all(text in line for text in texts)]
        await_that(found)
        self.lines.remove(found()[0])

    def lacks(self, *texts: str):
        assert not [line for line in self.lines if all(text in line for text in texts)], self.lines

    def hears(self):
        """What is sent now on the stream that it has got; when it lets that go, nobody has it."""
        await_that(lambda: self.given)
        stream = self.given.pop().take()
        os.set_blocking(stream, False)
        Machine.sound.send(b"heard")
        assert os.read(stream, 99) == b"heard"
        os.close(stream)
        assert Machine.sound.recv(99) == b""

    def asks(self, path, method, *words):
        """Its line will be what is returned, or the name of the error."""
        interface, member = method.split(".")
        owner, path = (self.registered if path == "registered"
                       else ("org.bluez", PATHS.get(path, path)))
        self.bus.call_async(
            owner, path, full(interface), member, None, valued(words),
            lambda *values: self._keep(member, *values or ["ok"]),
            lambda error: self._keep(member, error.get_dbus_name().split(".")[-1]), PATIENCE)

    def orders(self, path, method, *words):
        """And wants no answer, which would be a line without a path and a name."""
        interface, member = method.split(".")
        call = MethodCallMessage("org.bluez", PATHS[path], full(interface), member)
        call.append(*valued(words))
        call.set_no_reply(True)
        self.bus.send_message(call)

    def signals(self, path, name, *words):
        interface, member = name.split(".")
        message = SignalMessage(PATHS.get(path, path), full(interface), member)
        message.append(*valued(words))
        self.bus.send_message(message)

    def answers(self, member: str, *words, error=None):
        """A call that is held or will come."""
        await_that(lambda: member in self.held)
        self.lines = [line for line in self.lines if f" {member}" not in line]
        call = self.held.pop(member)
        answer = (ErrorMessage(call, "org.bluez.Error.Failed", error) if error
                  else MethodReturnMessage(call))
        answer.append(*valued(words))
        self.bus.send_message(answer)

    def refuses(self, member: str, error: str):
        self.answers(member, error=error)

    def ends(self):
        """And its bus has told everybody."""
        name = self.bus.get_unique_name()
        self.bus.close()
        await_that(lambda: not self.test.client.bus.name_has_owner(name))


class Machine(dbusmock.DBusTestCase):
    @classmethod
    def setUpClass(cls):
        cls.start_session_bus()
        cls.start_system_bus()
        await_that(is_listening)

    def start_bluez5(self):
        objects.clear()
        self.bluez5 = Peer(self, "SESSION")
        self.root = objects["/"] = DBusMockObject(self.bluez5.bus, "/", full("ObjectManager"), {},
                                                  "/dev/null", True)
        self.root.AddTemplate("bluez5", {})
        self.bluez5.bus.request_name("org.bluez")

    def start(self, name, *arguments):
        """What a sanitizer says of it is a failure."""
        errors = self.enterContext(tempfile.TemporaryFile())
        addresses = {"ULMO_MACHINE_BUS_ADDRESS": os.environ["DBUS_SESSION_BUS_ADDRESS"]}
        self.program = program = subprocess.Popen(
            [FOLDER + "/" + name, *arguments], stderr=errors,
            env=os.environ | addresses | {"BLUEZHOSTNAME": "Living Room"})

        def check():
            program.terminate()
            await_that(lambda: program.poll() is not None)
            errors.seek(0)
            self.assertNotRegex(errors.read().decode(), "Sanitizer|runtime error")
        self.addCleanup(program.kill)
        self.addCleanup(check)

    def ends(self, status: int):
        await_that(lambda: self.program.poll() is not None)
        self.assertEqual(self.program.returncode, status)

    def play(self, steps: str, number=None):
        for step in steps.strip("; ").split(";")[:number]:
            Peer.journal.append("# " + " ".join(step.split()))
            (actor, verb, *words), *heard = (part.split() for part in step.split(">"))
            if actor in PATHS:
                getattr(self, verb)(PATHS[actor], *words)
            else:
                attrgetter(actor + "." + verb)(self)(*words)
            self.hears(*map(" ".join, heard))

    def hears(self, *lines: str):
        """The client; exactly these come next."""
        await_that(lambda: not lines or len(self.client.lines) >= len(lines))
        heard = [self.client.lines.pop(0) for _ in lines]
        self.assertEqual(heard, list(lines), Peer.journal[-9:])

    def mark(self) -> str:
        """What the client hears of what BlueZ 5 changes now."""
        adapter = objects[PATHS["hci0"]]
        value = not adapter.props["org.bluez.Adapter1"]["Discoverable"]
        adapter.UpdateProperties("org.bluez.Adapter1", {"Discoverable": dbus.Boolean(value)})
        return f"hci0 Discoverable {value:d}"

    def _shows(self, path, interface, **properties):
        self.root.AddObject(path, interface, properties, [])
        objects[path].object_manager_emit_added(path)

    def is_there(self, path, is_linked="0", service="-", icon="phone"):
        self._shows(path, "org.bluez.Device1", Connected=dbus.Boolean(int(is_linked)),
                    Adapter=VALUES["hci0"], Icon=dbus.String(icon),
                    UUIDs=dbus.Array([service] if service != "-" else [], "s"))

    def is_shown(self, _):
        """Its stream, as late as BlueZ 5 may."""
        objects[PATHS["stream"]].object_manager_emit_added(PATHS["stream"])

    def is_forgotten(self, path):
        objects[path].object_manager_emit_removed(path)
        self.root.RemoveObject(path)

    def links(self, path, is_linked="1"):
        objects[path].UpdateProperties("org.bluez.Device1",
                                       {"Connected": dbus.Boolean(int(is_linked))})

    def opens(self, path, elsewhere=""):
        """Its stream, of SBC; elsewhere is at an endpoint of another program."""
        self._shows(PATHS["stream"], "org.bluez.MediaTransport1", Device=dbus.ObjectPath(path),
                    UUID=dbus.String(SINK), Codec=dbus.Byte(0), State=dbus.String("idle"),
                    Configuration=dbus.Array(b"\x21\x15\x02\x35", "y"), Volume=dbus.UInt16(127))
        properties, = objects[PATHS["stream"]].props.values()
        if not elsewhere:
            self.bluez5.asks("registered", "MediaEndpoint1.SetConfiguration", "stream",
                             dbus.Dictionary(properties, "sv"))

    def tells(self, _, state: str):
        """pending: it plays and nobody has taken the stream; active: somebody has; idle."""
        objects[PATHS["stream"]].UpdateProperties("", {"State": dbus.String(state)})

    def is_taken(self, _):
        Machine.sound, given = socket.socketpair(type=socket.SOCK_SEQPACKET)
        self.sound.settimeout(PATIENCE)
        self.bluez5.answers("TryAcquire", dbus.types.UnixFd(given), "672", "672")

    def is_lost(self, _):
        """What it sends now, PulseAudio must not hear."""
        self.sound.send(b"lost")

    def closes(self, _):
        self.bluez5.asks("registered", "MediaEndpoint1.ClearConfiguration", "stream")
        self.bluez5.sees("ClearConfiguration ok")
        self.is_forgotten(PATHS["stream"])

    def ready(self):
        """With a bridge on a machine where nothing is missing."""
        self.doCleanups()
        self.client = Peer(self, "SYSTEM", "interface=org.bluez.Device,member=PropertyChanged",
                           "interface=org.bluez.AudioSource", "arg0=Discoverable",
                           "member=DeviceCreated", "arg0=org.bluez")
        self.pulse = Peer(self, "SYSTEM", f"interface={dbus.PROPERTIES_IFACE}",
                          "member=InterfacesAdded")
        self.stranger = Peer(self, "SESSION")
        self.start_bluez5()
        self.root.AddAdapter("hci0", "machine")
        self.start("bluetoothd", "-n")
        self.client.sees("NameOwnerChanged")
        self.client.sees(self.mark())
        self.client.lines.clear()


class Programs(Machine):
    def descriptors(self) -> int:
        return len(os.listdir(f"/proc/{self.program.pid}/fd"))

    def test_stories(self):
        for title, steps in STORIES.items():
            with self.subTest(title):
                self.ready()
                before = self.descriptors()
                self.play(steps)
                self.hears(self.mark())
                await_that(lambda: self.descriptors() == before)

    def test_begins(self):
        """With BlueZ 5, its adapter and the endpoint, however late; older links are cut."""
        self.client = Peer(self, "SYSTEM", "arg0=org.bluez")
        users = len(self.client.bus.list_names())
        for is_last in False, True:
            self.start("bluetoothd", "-n")
            await_that(lambda: len(self.client.bus.list_names()) > users)
            if not is_last:
                self.program.terminate()
                self.ends(0)
        self.start_bluez5()
        self.bluez5.holds = self.bluez5.holds | {"RegisterEndpoint"}
        self.bluez5.sees("/ GetManagedObjects")
        self.root.AddAdapter("hci0", "machine")
        self.play("anna is_there 1; bluez5 sees hci0 RegisterEndpoint")
        self.assertFalse(self.client.bus.name_has_owner("org.bluez"))
        self.play("""bluez5 answers RegisterEndpoint; client sees NameOwnerChanged;
            client asks / Manager.DefaultAdapter; client sees DefaultAdapter hci0;
            bluez5 sees hci0 Set Alias Living Room; bluez5 sees hci0 Set DiscoverableTimeout 0;
            bluez5 sees anna Disconnect""")

    def test_ends(self):
        """At any step: with 1 when BlueZ 5 or the adapter goes, with 0 when it is told to."""
        ends = {"bluez5 bus.close": 1, "root RemoveAdapter hci0": 1, "program terminate": 0}
        for number in range(0, VISIT.count(";") + 2, 3):
            for end, status in ends.items():
                with self.subTest(f"{end} after {number} steps"):
                    self.ready()
                    self.play(VISIT, number)
                    self.bluez5.lines.clear()
                    self.play(end)
                    if status == 0 and PATHS["stream"] in objects:
                        self.play("anna closes")
                    self.ends(status)
                    if status == 0:
                        self.bluez5.sees("hci0 UnregisterEndpoint")
                        if number > 1 and objects[PATHS["anna"]].Get("", "Connected"):
                            self.bluez5.sees("anna Disconnect")
                    self.client.sees("NameOwnerChanged")

    def test_agent(self):
        """Gives the PIN, lets sound and remote control in; goes with BlueZ 5 or when told to."""
        for end in "bluez5 bus.close", "program terminate; bluez5 sees UnregisterAgent":
            self.doCleanups()
            self.start_bluez5()
            self.start("agent", "--path", "/org/bluez/agent", "--delay", "1", "--capabilites",
                       "NoInputNoOutput", "7351")
            self.play(f"""bluez5 sees RequestDefaultAgent /org/bluez/agent;
                bluez5 asks registered Agent1.RequestPinCode x; bluez5 sees RequestPinCode Unknown;
                bluez5 asks registered Agent1.RequestPinCode anna; bluez5 sees RequestPinCode 7351;
                bluez5 asks registered Agent1.AuthorizeService anna {SOURCE.replace("a", "d", 1)};
                bluez5 sees AuthorizeService ok;
                bluez5 asks registered Agent1.AuthorizeService anna {SOURCE.replace("a", "e", 1)};
                bluez5 sees AuthorizeService ok;
                bluez5 asks registered Agent1.AuthorizeService anna {SOURCE.replace("0a", "1e", 1)};
                bluez5 sees AuthorizeService Rejected; {end}""")
            self.ends(0)

    def test_pactl(self):
        """The phone's name is that of BlueZ 5; the rest stays, and so does what comes of it."""
        pactl = subprocess.run(
            [FOLDER + "/pactl", "<%s>", "source=bluez_source.00_AA_01_01_00_01", "sink=a  b", "",
             "source=bluez_sink.00_AA_01_01_00_01"], stdout=subprocess.PIPE, text=True,
            env=os.environ | {"ULMO_PACTL": "/usr/bin/printf"})
        self.assertEqual(pactl.stdout, "<source=bluez_source.00_AA_01_01_00_01.a2dp_source>"
                         "<sink=a  b><><source=bluez_sink.00_AA_01_01_00_01>")


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1] + sys.argv[2:], warnings="ignore")
