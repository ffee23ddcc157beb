"""The client of a running virtual product: starts it, tells it lines, and follows its journal.

    with Product(pulse="scripted") as product:
        product.tell("phone add anna")
        product.await_line("@ BluetoothOn true")
"""

import contextlib
import json
import os
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Any, Callable, NamedTuple

LAUNCHER = Path(__file__).resolve().parent / "virtual-product"
#: Longer than anything takes that is going to happen, in seconds.
PATIENCE = 60.0

Entry = dict[str, Any]


class Answer(NamedTuple):
    """What the product says to a line: whether it did it, in words, and what a call returned."""

    ok: bool
    text: str
    values: list


class ProductError(Exception):
    """The product refused, has ended, or did not do in time what was awaited."""


class Ended(ProductError):
    """The product is not there, or has gone."""


def wait_for(what: str, happens: Callable[[], Any], timeout: float = PATIENCE) -> Any:
    """Waits until it returns something true, and returns that; ProductError when it does not."""
    deadline = time.monotonic() + timeout
    while not (answer := happens()):
        if time.monotonic() > deadline:
            raise ProductError(f"did not happen within {timeout:g} s: {what}")
        time.sleep(0.2)
    return answer


def check() -> int:
    """0 where this machine allows a virtual product; else it says why not, and this is the exit
    status for that."""
    return subprocess.run([LAUNCHER, "--check"], check=False).returncode


def styled(text: str, style: str) -> str:
    """Text in a style of ECMA-48, such as "31", where standard output can show it."""
    plain = "NO_COLOR" in os.environ or os.environ.get("TERM") == "dumb" or not style
    return text if plain or not sys.stdout.isatty() else f"\033[{style}m{text}\033[0m"


def draw(out: Path) -> Answer:
    """Draws the run in the folder out, and writes what the board has played, as far as both have
    come. Says where they are."""
    from sound.recording import FORMAT  # of which the prompt has no other need
    shown = os.path.relpath(out) if out.resolve().is_relative_to(Path.cwd()) else out
    commands: list[list] = [[LAUNCHER.parent / "timeline/write", out],
                            ["sox", *FORMAT[:-1], out / "board.raw", out / "board.wav"]]
    if not all([subprocess.run(command, check=False).returncode == 0 for command in commands]):
        return Answer(False, f"not all of {shown} could be drawn", [])
    return Answer(True, f"Timeline: {shown}/timeline.html\nSound:    {shown}/board.wav", [])


class Connection:
    """The control socket of the product whose folder is out: one JSON object per line both ways."""

    def __init__(self, out: Path) -> None:
        self._socket = socket.socket(socket.AF_UNIX)
        self._received = b""
        try:
            # A socket's path must be short, the way to it need not.
            folder = os.open(out, os.O_PATH | os.O_DIRECTORY)
            try:
                self._socket.connect(f"/proc/self/fd/{folder}/control")
            finally:
                os.close(folder)
        except OSError as error:
            self.close()
            raise Ended(f"no virtual product runs in {out}") from error

    def fileno(self) -> int:
        return self._socket.fileno()

    def process(self) -> int:
        """The number that the product's main program has on this side."""
        credentials = self._socket.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 4)
        return int.from_bytes(credentials, sys.byteorder)

    def close(self) -> None:
        self._socket.close()

    def send(self, request: Entry) -> None:
        try:
            self._socket.sendall(json.dumps(request).encode() + b"\n")
        except OSError as error:
            raise Ended("the product has ended") from error

    def receive(self, timeout: float | None) -> list[Entry]:
        """The objects that are there, or come within timeout seconds; None waits for ever."""
        lines: list[bytes] = []
        if select.select([self._socket], [], [], timeout)[0]:
            data = self._socket.recv(1 << 20)
            if not data:
                raise Ended("the product has ended")
            *lines, self._received = (self._received + data).split(b"\n")
        return [json.loads(line) for line in lines]

    def ask(self, request: Entry, timeout: float | None = PATIENCE) -> Entry:
        """Sends the request and returns its answer."""
        self.send(request)
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            rest = None if deadline is None else max(0.0, deadline - time.monotonic())
            answers = self.receive(rest)
            if answers:
                return answers[0]
            if rest == 0.0:
                raise ProductError(f"no answer to {request}")


class Product:
    """A virtual product, started by us or, see attach(), by somebody else."""

    def __init__(self, *, out: Path | str | None = None, pulse: str = "real",
                 environment: dict[str, str] | None = None, under: str = "",
                 stopped: bool = False, tell: list[str] | None = None) -> None:
        """Starts it, as virtual-product's options of these names say, and tells it the lines of
        tell before it starts the service. A folder of our own goes with it."""
        self._own_out = None if out else Path(tempfile.mkdtemp(prefix="virtual-product."))
        self.out = Path(out or self._own_out)
        # Whatever way we end, it ends with us; an interrupt at the terminal is ours alone.
        command = ["setpriv", "--pdeathsig", "TERM", str(LAUNCHER)]
        command += ["--out", str(self.out), "--pulse", pulse]
        command += ["--under", under] if under else []
        command += ["--stopped"] if stopped or tell else []
        for name, value in (environment or {}).items():
            command += ["--env", f"{name}={value}"]
        self._launcher: subprocess.Popen | None = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, process_group=0)
        try:
            if not self._launcher.stdout.readline():
                # It has said why on its standard error, which is ours.
                status = self._launcher.wait()
                raise ProductError(f"virtual-product has ended with status {status}")
            self._open()
            for line in tell or []:
                self.tell(line)
            if tell and not stopped:
                self.tell("service start")
        except BaseException:
            with contextlib.suppress(ProductError):
                self.stop()
            raise

    @classmethod
    def attach(cls, out: Path | str) -> "Product":
        """The product that runs in the folder out."""
        product = cls.__new__(cls)
        product.out = Path(out)
        product._own_out = None
        product._launcher = None
        product._open()
        return product

    def _open(self) -> None:
        self._control = Connection(self.out)
        self._following = Connection(self.out)
        self._entries: list[Entry] = []
        self._following.send({"follow": True})

    def __enter__(self) -> "Product":
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def attempt(self, line: str, timeout: float | None = PATIENCE) -> Answer:
        """Tells a line and returns the answer, also that of a line which is refused."""
        return Answer(**self._control.ask({"tell": line}, timeout))

    def tell(self, line: str, timeout: float | None = PATIENCE) -> Answer:
        """Tells a line; ProductError when the product does not carry it out."""
        answer = self.attempt(line, timeout)
        if not answer.ok:
            raise ProductError(f"{line}: {answer.text}")
        return answer

    @property
    def journal(self) -> list[Entry]:
        """The entries of the journal that have come so far."""
        self.follow(0)
        return self._entries

    def follow(self, timeout: float | None) -> list[Entry]:
        """The entries that have come since the last time, or come within timeout seconds."""
        entries = self._following.receive(timeout)
        self._entries += entries
        return entries

    def await_line(self, pattern: str, *, since: int = 0, timeout: float = PATIENCE) -> Entry:
        """The first entry with such a line, in which * stands for anything, of those from the
        journal's number since on. Waits for it; ProductError when it has not come in time."""
        expression = re.compile(".*".join(map(re.escape, pattern.split("*"))), re.DOTALL)
        deadline = time.monotonic() + timeout
        while True:
            for index in range(since, len(self._entries)):
                if expression.fullmatch(self._entries[index]["line"]):
                    return self._entries[index]
            since = max(since, len(self._entries))
            rest = deadline - time.monotonic()
            if rest <= 0:
                raise ProductError(f"did not happen within {timeout:g} s: {pattern}")
            self.follow(rest)

    def stop(self) -> None:
        """Ends it, when it is ours, with all that runs inside; ProductError when it failed."""
        status = 0
        if self._launcher:
            try:
                Connection(self.out).send({"tell": "quit"})
            except Ended:
                # It does not listen yet, or any more.
                self._launcher.send_signal(signal.SIGTERM)
            try:
                status = self._launcher.wait(PATIENCE)
            except subprocess.TimeoutExpired as error:
                raise ProductError("virtual-product does not end") from error
            self._launcher.stdout.close()
            self._launcher = None
        if self._own_out:
            shutil.rmtree(self._own_out, ignore_errors=True)
        if status:
            raise ProductError(f"virtual-product has ended with status {status}")
