"""The service under supervision: the unmodified program. Its log lines, and everything else that it
prints, go to the journal."""

import os
import re
import shlex
import subprocess
from typing import Callable

from core import loop
from core.journal import Journal
from core.words import Refused

# "HH:MM:SS.mmm LEVEL PATH [FILE:LINE] FUNCTION: MESSAGE"; the platform's has no FILE.
LOG_LINE = re.compile(r"\d\d:\d\d:\d\d\.\d{3} (\d) (\S+) (?:\[([^\]:]+):(\d+)\] (.*?): )?(.*)")


class Service:
    def __init__(self, journal: Journal, program: str, environment: list[str], under: str) -> None:
        """environment is a list of NAME=VALUE on top of ours. program is the last argument of the
        command under when that is not empty, which is to become it."""
        self._journal = journal
        self._command = [*shlex.split(under), program]
        self._environment = dict(variable.split("=", 1) for variable in environment)
        #: Called when it may have printed something.
        self.has_printed: Callable[[], None] = self.drain
        #: Called once with "with status 0" or the like when its end is in the journal.
        self.when_ended: list[Callable[[str], None]] = []
        self._child: subprocess.Popen | None = None
        # One pipe serves every start: children that outlive the service may go on writing.
        self._output, self._input = os.pipe()
        os.set_blocking(self._output, False)
        loop.watch(self._output, lambda: self.has_printed())
        self._rest = b""

    @property
    def is_running(self) -> bool:
        return self._child is not None

    def start(self) -> None:
        if self._child:
            raise Refused("the service runs already")
        try:
            self._child = subprocess.Popen(
                self._command, env=os.environ | self._environment, stdin=subprocess.DEVNULL,
                stdout=self._input, stderr=self._input)
        except OSError as error:
            raise Refused(f"{self._command[0]}: {error.strerror}") from error
        loop.when_ended(self._child, self._record_end)
        self._journal.record("service", "start", "& service", program="service",
                             pid=self._child.pid)

    def kill(self, signal: int) -> None:
        """Sends it a signal."""
        if not self._child:
            raise Refused("the service is not running")
        self._child.send_signal(signal)

    def drain(self) -> None:
        """Writes down what it has printed since the last time."""
        try:
            while data := os.read(self._output, 1 << 16):
                self._rest += data
        except BlockingIOError:
            pass
        *lines, self._rest = self._rest.split(b"\n")
        for line in lines:
            self._record(line.decode(errors="replace"))

    def _record(self, line: str) -> None:
        match = LOG_LINE.fullmatch(line)
        if not match:
            self._journal.record("service", "output", "| " + line)
            return
        level, path, file, at, function, message = match.groups("")
        self._journal.record("service", "log", f"{level} {message}", level=int(level), path=path,
                             file=file, at=int(at or 0), function=function, message=message)

    def _record_end(self) -> None:
        # First what it has said before, and what it has waited for.
        self.has_printed()
        code, pid = self._child.wait(), self._child.pid
        self._child = None
        how = f"by signal {-code}" if code < 0 else f"with status {code}"
        facts = {"signal": -code} if code < 0 else {"status": code}
        self._journal.record("service", "end", f". service ended {how}", program="service", pid=pid,
                             **facts)
        waiting, self.when_ended = self.when_ended, []
        for action in waiting:
            action(how)
