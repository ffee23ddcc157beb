"""Lays the board's folders, programs and settings over those of the machine, for whoever is in the
same namespaces."""

import ctypes
import os
import shutil
from pathlib import Path

from core.faults import PROGRAMS

BOARD = Path("/run/product")
SIMULATOR = BOARD / "build/simulator"
# Flags of mount(2).
BIND = 0x1000 | 0x4000  # with all that is mounted below
MOVE = 0x2000
FRESH = ("/tmp", "/run", "/var/run", "/var/lib", "/dev/shm")
SYSTEM_PROGRAMS = ("bluetoothd", "modprobe")  # in sbin

# Who comes from outside of a user namespace is not the user that he takes himself for, hence
# ANONYMOUS. The limit is that of every session bus.
BUS_SETTINGS = """\
<busconfig>
  <listen>unix:path=/run/dbus/unused</listen>
  <auth>EXTERNAL</auth>
  <auth>ANONYMOUS</auth>
  <allow_anonymous/>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*" eavesdrop="true"/>
  </policy>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
"""

_libc = ctypes.CDLL(None, use_errno=True)


def attach(source: str | Path, target: str | Path, kind: str = "", flags: int = 0,
           options: str = "") -> None:
    """mount(2); OSError when it fails."""
    if _libc.mount(str(source).encode(), str(target).encode(), kind.encode(),
                   ctypes.c_ulong(flags), options.encode()) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()), str(target))


def lay_out(shown: list[str], began: float) -> None:
    """From here on the machine is the board, but for the folders shown, first those of the build
    and of what comes out. The run began then, by time.monotonic(). OSError: it is not allowed."""
    os.umask(0o022)  # the sound server, a user of its own, reads what is made here
    make_fresh_folders(shown)
    overlay = BOARD / "overlay"
    make_programs(overlay)
    make_settings(overlay / "etc", began)
    for name, target in (("bin", "/usr/bin"), ("sbin", "/usr/sbin"), ("etc", "/etc")):
        lay(overlay / name, Path(target))


def make_fresh_folders(shown: list[str]) -> None:
    # What is needed of the outside and lies below one of them is shown again at its own place. A
    # folder that is open can be shown whatever covers it.
    sources = [f"/proc/self/fd/{os.open(path, os.O_PATH)}" for path in shown]
    attach("tmpfs", "/mnt", "tmpfs", options="mode=755")
    for folder in ("tmp", "pulse", "dbus", "product/build", "product/out", "product/bin",
                   "product/host", "product/overlay/bin", "product/overlay/sbin",
                   "product/overlay/etc/pulse"):
        os.makedirs(f"/mnt/{folder}")
    os.chmod("/mnt/tmp", 0o1777)
    for source, name in zip(sources, ("build", "out")):
        attach(source, f"/mnt/product/{name}", flags=BIND)
    os.chdir("/")
    attach("/mnt", "/run", flags=MOVE)
    if not os.path.islink("/var/run"):
        attach("/run", "/var/run", flags=BIND)
    attach("/run/tmp", "/tmp", flags=BIND)
    attach("tmpfs", "/dev/shm", "tmpfs", options="mode=1777")
    # Without this one PulseAudio, as root, writes into the machine's /var/lib/pulse.
    attach("tmpfs", "/var/lib", "tmpfs", options="mode=755")
    for source, path in zip(sources, shown):
        if path not in FRESH and any(path.startswith(folder + "/") for folder in FRESH):
            os.makedirs(path, exist_ok=True)
            attach(source, path, flags=BIND)
        os.close(int(source.rpartition("/")[2]))


def make_programs(overlay: Path) -> None:
    """/usr/bin/NAME -> /run/product/bin/NAME -> the stub: the one in the middle can be taken away,
    and then the program is missing."""
    for name in PROGRAMS:
        (BOARD / "bin" / name).symlink_to(SIMULATOR / "product-stub")
        folder = "sbin" if name in SYSTEM_PROGRAMS else "bin"
        (overlay / folder / name).symlink_to(BOARD / "bin" / name)
    # For people: both are in PATH.
    (overlay / "bin/product-control").symlink_to(SIMULATOR / "product-control")
    (overlay / "bin/ulmoctl").symlink_to(BOARD / "build/ulmoctl/ulmoctl")
    # Prints whole command lines of all processes, as on the board. Debian's own prints names only.
    (overlay / "bin/ps").symlink_to(BOARD / "host/bin/busybox")


def make_settings(etc: Path, began: float) -> None:
    sound = SIMULATOR / "sound"
    (etc / "pulse/system.pa").write_text(
        "load-module module-native-protocol-unix auth-anonymous=1\n")
    (etc / "pulse/daemon.conf").write_text("high-priority = no\nrealtime-scheduling = no\n")
    (etc / "pulse/client.conf").write_text("autospawn = no\n")
    (etc / "asound.conf").write_text(
        f'pcm_type.board {{ lib "{sound}/libboard-output.so" }}\n'
        f'pcm.dm-audio {{ type board file "{BOARD}/out/board.raw" start {began} }}\n')
    if Path("/proc/self/setgroups").read_text().strip() == "deny":
        # There is only one user in here: pulse is another name of root.
        for name, own in (("passwd", ["pulse:x:0:0::/var/run/pulse:/bin/false"]),
                          ("group", ["pulse:x:0:", "pulse-access:x:0:"])):
            others = [line for line in Path("/etc", name).read_text().splitlines()
                      if not line.startswith(("pulse:", "pulse-access:"))]
            (etc / name).write_text("\n".join([*others, *own, ""]))
        os.environ["PRODUCT_ONE_GROUP"] = f"{sound}/libsingle-group.so"
    (BOARD / "bus.conf").write_text(BUS_SETTINGS)
    Path("/run/dbus/system_bus_socket").symlink_to("../product/out/system_bus")


def lay(over: Path, target: Path) -> None:
    """What is in one folder lies over what is in the other."""
    host = BOARD / "host" / target.name
    host.mkdir()
    attach(target, host, flags=BIND)
    try:
        attach("overlay", target, "overlay", options=f"lowerdir={over}:{target}")
        return
    except OSError:
        # Overlays stack two deep at most. A folder of symbolic links shows the same; links stay as
        # they are, since a relative one is meant from here.
        farm = BOARD / "farm" / target.name
    farm.mkdir(parents=True)
    for entry in os.scandir(host):
        (farm / entry.name).symlink_to(os.readlink(entry) if entry.is_symlink() else entry.path)
    for entry in os.scandir(over):
        (farm / entry.name).unlink(missing_ok=True)
        if entry.is_dir(follow_symlinks=False):
            shutil.copytree(entry, farm / entry.name, symlinks=True)
        else:
            shutil.copy(entry, farm / entry.name, follow_symlinks=False)
    attach(farm, target, flags=BIND)
