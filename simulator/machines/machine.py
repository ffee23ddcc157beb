"""Virtual machines, with Bluetooth controllers in an emulated air, and phones on them."""

import contextlib
import subprocess
import time
from pathlib import Path
from socket import create_server
from typing import Any, Callable

from product import ProductError

PATIENCE = 120  # seconds; without acceleration a machine is much slower than a board
SINK = "0000110b-0000-1000-8000-00805f9b34fb"
TRIES = 5


def wait_for(what: str, happens: Callable[[], Any], timeout: float = PATIENCE) -> Any:
    """Waits until it returns something true, and returns that."""
    deadline = time.monotonic() + timeout
    while not (answer := happens()):
        if time.monotonic() > deadline:
            raise ProductError(f"did not happen within {timeout:g} s: {what}")
        time.sleep(0.2)
    return answer


def acceleration(kernel: Path) -> list[str]:
    """qemu's options for the fastest way. Where the host's virtualisation is there but does not
    work, qemu ends, or hangs; a kernel that gets so far that it misses its disk shows that it does.
    """
    fast = ["-accel", "kvm", "-cpu", "host"]
    probe = ["timeout", "10", "qemu-system-x86_64", *fast, "-m", "256", "-nodefaults", "-display",
             "none", "-serial", "stdio", "-no-reboot", "-kernel", str(kernel),
             "-append", "console=ttyS0 panic=-1"]
    said = subprocess.run(probe, capture_output=True, check=False).stdout
    works = b"Unable to mount root" in said
    return fast if works else ["-accel", "tcg,tb-size=256", "-cpu", "max"]


def start_air(folder: Path) -> Path:
    """Starts btvirt, whose sockets are always in /tmp: there, that is the folder. Returns the one
    for controllers."""
    subprocess.Popen(["unshare", "--mount", "sh", "-c", 'mount --bind "$0" /tmp && exec btvirt -s',
                      folder], stdout=subprocess.DEVNULL)
    return wait_for("btvirt listens", lambda: next(folder.glob("bt-server-bredr"), None))


class Machine:
    """One that runs. "ssh -F OUT/ssh.config NAME" is a shell of it."""

    def __init__(self, name: str, image: Path, out: Path, air: Path, accelerate: list[str],
                 controllers: int) -> None:
        self.name = name
        self._out = out
        self._controllers = controllers
        self._ssh = ["ssh", "-F", str(out / "ssh.config"), name]
        with create_server(("127.0.0.1", 0)) as free:
            port = free.getsockname()[1]
        with (out / "ssh.config").open("a") as config:
            print(f"Host {name}", "HostName 127.0.0.1", f"Port {port}", "User root",
                  f"IdentityFile {image / 'key'}", "StrictHostKeyChecking no", "LogLevel ERROR",
                  "UserKnownHostsFile /dev/null", "ControlMaster auto", "ControlPersist yes",
                  f"ControlPath {air.parent / name}.ssh", sep="\n    ", file=config)
        radios = [word for number in range(controllers) for word in (
            "-chardev", f"socket,id=air{number},path={air}",
            "-device", f"virtserialport,chardev=air{number},name=radio{number}")]
        self._process = subprocess.Popen(
            ["qemu-system-x86_64", *accelerate, "-m", "512", "-nodefaults", "-display", "none",
             "-kernel", image / "vmlinuz", "-initrd", image / "initrd", "-append",
             f"root=/dev/vda rw console=ttyS0 quiet net.ifnames=0 systemd.hostname={name}",
             "-drive", f"file={image / 'root.img'},format=raw,if=virtio,snapshot=on",
             "-netdev", f"user,id=net,restrict=on,hostfwd=tcp:127.0.0.1:{port}-:22",
             "-device", "virtio-net-pci,netdev=net,romfile=", "-device", "virtio-rng-pci",
             "-device", "virtio-serial-pci", *radios,
             "-serial", f"file:{out / name}.console", "-no-reboot"], stdin=subprocess.DEVNULL)

    def await_start(self, relay: Path) -> None:
        wait_for(f"the machine {self.name} starts", self._is_up, 3 * PATIENCE)
        self.follow("journalctl --follow --lines=all --output=json", f"{self.name}.jsonl")
        self.put("/usr/local/sbin", relay)
        for number in range(self._controllers):
            self.run(f"modprobe hci_vhci && systemd-run --quiet --unit=radio{number} --nice=-20 "
                     f"relay /dev/virtio-ports/radio{number}")
            self.await_property(f"/org/bluez/hci{number}", "org.bluez.Adapter1", "Address")

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
            self.run(f"cd {folder} && cat > {file.name} && chmod +x {file.name}", file.read_bytes())

    def follow(self, command: str, file: str) -> None:
        """Keeps what a command there prints, as long as the machine runs."""
        with (self._out / file).open("wb") as output:
            subprocess.Popen([*self._ssh, command], stdin=subprocess.DEVNULL, stdout=output)

    def await_property(self, path: str, interface: str, name: str) -> str:
        """The value of a text of BlueZ's, once there is one."""
        return self.run(f"until busctl get-property org.bluez {path} {interface} {name} "
                        "2> /dev/null; do sleep 0.2; done").split('"')[1]


class Phone:
    """BlueZ 5 and PulseAudio of a machine, with one of its controllers."""

    def __init__(self, machine: Machine, number: int, unit: str) -> None:
        """unit is the address of the speaker's controller."""
        self._machine = machine
        self._number = number
        self._device = f"/org/bluez/hci{number}/dev_{unit.replace(':', '_')}"
        self.address = machine.await_property(f"/org/bluez/hci{number}", "org.bluez.Adapter1",
                                              "Address")

    @staticmethod
    def prepare(machine: Machine, tone: bytes) -> None:
        """What all phones of a machine share: the sound, and an agent that knows the PIN."""
        machine.run("cat > /root/tone", tone)
        machine.run("usermod --append --groups pulse-access root; echo '* 7351' > /run/pins; "
                    "systemd-run --quiet --unit=agent bt-agent --pin=/run/pins; "
                    "systemd-run --quiet --unit=sound pulseaudio --system; "
                    "until pactl load-module module-bluetooth-discover; do sleep 0.2; done")

    def _call(self, method: str, *arguments: str) -> None:
        self._machine.run(f"busctl --timeout={PATIENCE} call org.bluez {self._device} "
                          f"org.bluez.Device1 {method} {' '.join(arguments)}")

    def pair(self) -> None:
        """Looks for the unit and pairs with it, to let it in from then on as phones do."""
        self._machine.run("systemd-run --quiet --unit=search --collect bt-adapter "
                          f"--adapter=hci{self._number} --discover")
        self._machine.await_property(self._device, "org.bluez.Device1", "Address")
        self._machine.run("systemctl stop search; busctl set-property org.bluez "
                          f"{self._device} org.bluez.Device1 Trusted b true")
        self._call("Pair")

    def connect(self) -> None:
        """Whether that lasts is the unit's affair. A kernel refuses the stream as long as it has
        not asked its controller for the size of the link's key. A radio takes longer than that,
        this air does not: so it is asked again, as people do."""
        for _ in range(TRIES):
            begin = self._machine.run("date +%s.%N")
            with contextlib.suppress(ProductError):
                self._call("ConnectProfile", "s", SINK)
            if not self._machine.run(f"journalctl --unit=bluetooth --since=@{begin} --output=cat "
                                     "--grep='Connection refused' ||:"):
                return

    def leave(self) -> None:
        self._call("Disconnect")

    def play(self) -> None:
        find = "pactl list short sinks | grep -o 'bluez_sink[^\t]*'"
        self._machine.run(
            f"until {find}; do sleep 0.2; done; systemd-run --quiet --unit=tone --collect sh -c "
            "'while cat /root/tone; do :; done | pacat --raw --rate=44100 --channels=2 "
            f"--format=s16le --device='$({find})")

    def pause(self) -> None:
        self._machine.run("systemctl stop tone ||:")
