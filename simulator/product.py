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
import tempfile
import time
from pathlib import Path
from typing import Any, NamedTuple

LAUNCHER = Path(__file__).resolve().parent / "virtual-product"
#: Longer than anything takes that is going to happen, in seconds.
PATIENCE = 60.0
CANNOT_RUN = 77

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


class CannotRun(ProductError):
    """This machine does not allow the namespaces."""


def connect(out: Path) -> "Connection":
    """Connects to the product whose folder is out. A socket's path must be short, the way to it
    need not."""
    connection = socket.socket(socket.AF_UNIX)
    try:
        folder = os.open(out, os.O_PATH | os.O_DIRECTORY)
        try:
            connection.connect(f"/proc/self/fd/{folder}/control")
        finally:
            os.close(folder)
    except OSError as error:
        connection.close()
        raise Ended(f"no virtual product runs in {out}") from error
    return Connection(connection)


class Connection:
    """The control socket: one JSON object per line both ways."""

    def __init__(self, connection: socket.socket) -> None:
        self._socket = connection
        self._received = b""

    def fileno(self) -> int:
        return self._socket.fileno()

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
                kind = CannotRun if status == CANNOT_RUN else ProductError
                raise kind(f"virtual-product has ended with status {status}")
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
        self._control = connect(self.out)
        self._following = connect(self.out)
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
                connect(self.out).send({"tell": "quit"})
            except Ended:
                # It does not listen yet, or any more.
                self._launcher.send_signal(signal.SIGTERM)
            status = self._launcher.wait(PATIENCE)
            self._launcher.stdout.close()
            self._launcher = None
        if self._own_out:
            shutil.rmtree(self._own_out, ignore_errors=True)
        if status:
            raise ProductError(f"virtual-product has ended with status {status}")
