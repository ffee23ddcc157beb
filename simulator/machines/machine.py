"""Virtual machines, and phones on them: BlueZ 5 and PulseAudio with a controller of their own."""

import contextlib
import subprocess
import time
from pathlib import Path
from socket import create_server
from typing import Any, Callable

from product import ProductError

PATIENCE = 120  # seconds; without acceleration a machine is much slower than a board
AIR = "/tmp/bt-server-bredr"  # the socket of btvirt for the machines' controllers
TRIES = 5  # of a person
SINK = "0000110b-0000-1000-8000-00805f9b34fb"


def wait_for(what: str, happens: Callable[[], Any], timeout: float = PATIENCE) -> Any:
    """Waits until it returns something true, and returns that."""
    deadline = time.monotonic() + timeout
    while not (answer := happens()):
        if time.monotonic() > deadline:
            raise ProductError(f"did not happen within {timeout:g} s: {what}")
        time.sleep(0.2)
    return answer


class Machine:
    """One that runs. Its journal goes to OUT/NAME.jsonl; "ssh -F OUT/ssh.config NAME" is a shell
    of it."""

    def __init__(self, name: str, controllers: int, disk: Path, out: Path, faster: str) -> None:
        self.name = name
        self._controllers = controllers
        self._out = out
        self._ssh = ["ssh", "-F", str(out / "ssh.config"), name]
        with create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        with (out / "ssh.config").open("a") as config:
            print(f"Host {name}", "HostName 127.0.0.1", f"Port {port}", "User root",
                  f"IdentityFile {disk / 'key'}", "StrictHostKeyChecking no", "LogLevel ERROR",
                  "UserKnownHostsFile /dev/null", "ControlMaster auto", "ControlPersist yes",
                  "ControlPath /tmp/%n.ssh", sep="\n    ", file=config)
        radios = " ".join(f"-chardev socket,id=air{number},path={AIR} "
                          f"-device virtserialport,chardev=air{number},name=radio{number}"
                          for number in range(controllers))
        self._process = subprocess.Popen([
            "qemu-system-x86_64", *faster.split(), "-m", "512", "-nodefaults", "-no-reboot",
            "-kernel", disk / "vmlinuz", "-initrd", disk / "initrd", "-append",
            f"root=/dev/vda rw console=ttyS0 quiet net.ifnames=0 systemd.hostname={name}",
            "-drive", f"file={disk / 'root.img'},format=raw,if=virtio,snapshot=on",
            "-netdev", f"user,id=net,restrict=on,hostfwd=tcp:127.0.0.1:{port}-:22",
            *"-device virtio-net-pci,netdev=net,romfile= -device virtio-rng-pci".split(),
            *f"-device virtio-serial-pci {radios} -display none".split(),
            "-serial", f"file:{out / name}.console"], stdin=subprocess.DEVNULL)

    def await_start(self) -> None:
        wait_for(f"the machine {self.name} starts", self._is_up, 3 * PATIENCE)
        self.follow("journalctl --follow --lines=all --output=json", f"{self.name}.jsonl")
        self.put("/run", Path(__file__).with_name("relay"))
        for number in range(self._controllers):
            self.run(f"modprobe hci_vhci && systemd-run --quiet --unit=radio{number} --nice=-20 "
                     f"python3 /run/relay /dev/virtio-ports/radio{number}")
            self.address(number)

    def _is_up(self) -> bool:
        if self._process.poll() is not None:
            raise ProductError(f"the machine {self.name} has ended")
        wait = [*self._ssh, "systemctl is-system-running --wait"]
        return subprocess.run(wait, capture_output=True, check=False).returncode != 255  # ssh's own

    def run(self, command: str, sent: bytes = b"") -> str:
        """Runs a shell command there, which may read what is sent, and returns what it prints."""
        done = subprocess.run(["timeout", str(PATIENCE), *self._ssh, command], input=sent,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        text = done.stdout.decode(errors="replace").strip()
        if done.returncode:
            raise ProductError(f"{self.name}: {command}: {text or done.returncode}")
        return text

    def put(self, folder: str, *files: Path) -> None:
        for file in files:
            self.run(f"cat > {folder}/{file.name}", file.read_bytes())

    def follow(self, command: str, file: str) -> None:
        """Keeps what a command there prints, as long as the machine runs."""
        with (self._out / file).open("wb") as output:
            subprocess.Popen([*self._ssh, command], stdin=subprocess.DEVNULL, stdout=output)

    def address(self, number: int) -> str:
        """Of a controller, once BlueZ has it."""
        return self.run(f"until busctl get-property org.bluez /org/bluez/hci{number} "
                        "org.bluez.Adapter1 Address 2> /dev/null; do sleep 0.2; done").split('"')[1]


class Phone:
    def __init__(self, machine: Machine, number: int, unit: str) -> None:
        """With a controller of the machine. unit is the address of the speaker's."""
        self.address = machine.address(number)
        self._machine = machine
        self._number = number
        self._device = f"/org/bluez/hci{number}/dev_{unit.replace(':', '_')} org.bluez.Device1"

    @staticmethod
    def prepare(machine: Machine, tone: bytes) -> None:
        """What all phones of a machine share: the sound, and an agent that knows the PIN."""
        machine.run("cat > /run/tone", tone)
        machine.run("usermod --append --groups pulse-access root; echo '* 7351' > /run/pins; "
                    "systemd-run --quiet --unit=agent bt-agent --pin=/run/pins; "
                    "systemd-run --quiet --unit=sound pulseaudio --system; "
                    "until pactl load-module module-bluetooth-discover; do sleep 0.2; done")

    def _call(self, what: str) -> None:
        self._machine.run(f"busctl --timeout={PATIENCE} call org.bluez {self._device} {what}")

    def pair(self) -> None:
        """Looks for the unit and pairs with it, to let it in from then on as phones do."""
        self._machine.run(
            f"systemd-run --quiet --unit=search bt-adapter --adapter=hci{self._number} --discover; "
            f"until busctl set-property org.bluez {self._device} Trusted b true 2> /dev/null; "
            "do sleep 0.2; done; systemctl stop search")
        self._call("Pair")

    def connect(self) -> None:
        """Whether that lasts is the unit's affair. A kernel may refuse a stream that comes before
        it is through with a new link's encryption. A radio takes longer than that, this air does
        not: so it is asked again, as people do."""
        for _ in range(TRIES):
            begin = self._machine.run("date +%s.%N")
            with contextlib.suppress(ProductError):
                self._call(f"ConnectProfile s {SINK}")
            if not self._machine.run(f"journalctl --unit=bluetooth --since=@{begin} --output=cat "
                                     "--grep='Connection refused' ||:"):
                return

    def leave(self) -> None:
        """Also a link whose other end has gone, which a radio tells after a while, this air not."""
        with contextlib.suppress(ProductError):  # there may be none
            self._call("Disconnect")

    def play(self) -> None:
        find = "pactl list short sinks | grep -o 'bluez_sink[^\t]*'"
        self._machine.run(
            f"until {find}; do sleep 0.2; done; systemd-run --quiet --unit=tone sh -c "
            "'while cat /run/tone; do :; done | pacat --raw --rate=44100 --channels=2 "
            f"--format=s16le --device='$({find})")

    def pause(self) -> None:
        self._machine.run("systemctl stop tone ||:")
