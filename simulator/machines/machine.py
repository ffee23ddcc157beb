"""Virtual machines, and phones on them: BlueZ 5 and PulseAudio with a controller of their own."""

import shlex
import subprocess
from pathlib import Path

from product import ProductError, wait_for

PATIENCE = 120  # seconds; without acceleration a machine is much slower than a board
BOOT = Path(__file__).resolve().parents[2] / "packaging/machine"
SINK = "0000110b-0000-1000-8000-00805f9b34fb"


class Machine:
    """One that runs, see packaging/machine. Its journal goes to OUT/NAME.jsonl."""

    def __init__(self, name: str, controllers: int, disk: Path, out: Path, faster: str) -> None:
        self.name, self._controllers, self._out = name, controllers, out
        self._ssh = ["ssh", "-F", str(out / "ssh.config"), name]
        self._process = subprocess.Popen([BOOT, name, str(controllers), disk, out, faster])

    def await_start(self) -> None:
        start = [*self._ssh, "systemctl is-system-running --wait"]  # 255: ssh itself failed
        wait_for(f"the machine {self.name} starts", lambda: self._process.poll() is not None
                 or subprocess.run(start, capture_output=True).returncode != 255, 3 * PATIENCE)
        self.follow("journalctl --follow --lines=all --output=json", f"{self.name}.jsonl")
        for number in range(self._controllers):  # whose packets are those of a console
            self.run(f"systemd-run --quiet --unit=radio{number} "
                     f"btattach --bredr /dev/hvc{number} --protocol h4")
            self.address(number)

    def run(self, command: str, sent: bytes = b"") -> str:
        """Runs a shell command there, which may read what is sent, and returns what it prints."""
        there = f"timeout {PATIENCE} sh -c {shlex.quote(command)}"  # ssh's end would not end it
        done = subprocess.run([*self._ssh, there], input=sent, capture_output=True)
        text = (done.stdout + done.stderr).decode(errors="replace").strip()
        if done.returncode:
            raise ProductError(f"{self.name}: {command}: {text or done.returncode}")
        return text

    def put(self, folder: str, *files: Path) -> None:
        for file in files:
            self.run(f"cat > {folder}/{file.name}", file.read_bytes())

    def follow(self, command: str, file: str) -> None:
        """Keeps what a command there prints, as long as the machine runs."""
        with (self._out / file).open("wb") as output:
            subprocess.Popen([*self._ssh, command], stdin=subprocess.DEVNULL, stdout=output,
                             stderr=subprocess.DEVNULL)

    def address(self, number: int) -> str:
        """Of a controller, once BlueZ has it."""
        return self.run(f"until busctl get-property org.bluez /org/bluez/hci{number} "
                        "org.bluez.Adapter1 Address 2> /dev/null; do sleep 0.2; done").split('"')[1]


class Phone:
    def __init__(self, machine: Machine, number: int, unit: str) -> None:
        """With a controller of the machine. unit is the address of the speaker's."""
        self.address = machine.address(number)
        self.machine = machine
        self._adapter = f"hci{number}"
        self._device = f"/org/bluez/{self._adapter}/dev_{unit.replace(':', '_')}"

    @staticmethod
    def prepare(machine: Machine, tone: bytes) -> None:
        """The sound, an agent, and a link of the second phone's: btvirt hands data on under its
        sender's number of a link, and its next number is then that of the unit's second one."""
        machine.run("cat > /run/tone; touch /run/pins; usermod -a --groups pulse-access root; "
                    "systemd-run --quiet --unit=agent bt-agent --pin=/run/pins; "
                    "systemd-run --quiet --unit=sound pulseaudio --system; "
                    "until pactl load-module module-bluetooth-discover; do sleep 0.2; done; "
                    "hciconfig hci2 pscan; systemd-run --quiet --unit=link -p Restart=always "
                    f"l2ping -i hci1 -d 1000000 {machine.address(2)}", tone)

    def _call(self, what: str) -> str:
        """What BlueZ says; nothing when it did it."""
        return self.machine.run(f"busctl --quiet --timeout={PATIENCE} call org.bluez {what} ||:")

    def pair(self, pin: str = "7351") -> str:
        """Looks for the unit, and pairs with it as with one to be let in; or says why not."""
        self.machine.run(
            "systemctl restart link; until hcitool -i hci1 con|grep 'handle 42'; do sleep 1; done; "
            # bt-agent has two signals mixed up: this one has it read its file again.
            f"echo '* {pin}' > /run/pins; systemctl kill --signal=TERM agent; "
            f"systemd-run --quiet --unit=search bt-adapter --adapter={self._adapter} --discover; "
            f"until busctl set-property org.bluez {self._device} org.bluez.Device1 Trusted b true "
            "2> /dev/null; do sleep 0.2; done; systemctl stop search")
        return self._call(f"{self._device} org.bluez.Device1 Pair")

    def forget(self) -> None:
        self._call(f"/org/bluez/{self._adapter} org.bluez.Adapter1 RemoveDevice o {self._device}")

    def connect(self) -> None:
        """Of a link as quick as on this air, a kernel may not yet see the encryption, BlueZ may
        miss it, its other end may have gone. So it is asked again, as people do."""
        for _ in range(6):
            begin = self.machine.run("date +%s.%N")
            self._call(f"{self._device} org.bluez.Device1 ConnectProfile s {SINK}")
            failure = self.machine.run(f"journalctl --unit=bluetooth --since=@{begin} --output=cat "
                                       "--grep='Connection re(fused|set)|select SEP' ||:")
            if not failure:
                return
            if "SEP" in failure:  # over a link that the unit's BlueZ has missed
                self.leave()

    def leave(self) -> None:
        """Also a link whose other end has gone, which a radio tells after a while, this air not."""
        self._call(f"{self._device} org.bluez.Device1 Disconnect")

    def play(self, options: str = "") -> None:
        """Over this connection and later ones, unless these options of pacat's say where."""
        self.machine.run(
            "until pactl list short sinks | grep bluez_sink; do sleep 0.2; done; "
            f"systemd-run --quiet --unit=tone-{self._adapter} sh -c 'while cat /run/tone; do :; "
            f"done | pacat --raw --rate=44100 --channels=2 --format=s16le {options}'")

    def pause(self) -> None:
        self.machine.run(f"systemctl stop tone-{self._adapter} ||:")
