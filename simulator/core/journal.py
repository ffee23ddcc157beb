"""What happens in the virtual product, written down as it happens."""

import json
import sys
import time
from typing import Any, Callable


def to_json(value: Any) -> str:
    return json.dumps(value, ensure_ascii=False, separators=(",", ":"))


class Journal:
    """One JSON object per line. Its text `line` is the one rendering for people and stories; the
    other fields are the raw facts."""

    def __init__(self, path: str, began: float) -> None:
        """began is when the run has, by time.monotonic(). OSError when it cannot be made."""
        self.path = path
        #: Get each entry, without the newline.
        self.listeners: list[Callable[[bytes], None]] = []
        self._file = open(path, "wb", buffering=0)
        self._began = began
        self._is_complete = True
        self.record("control", "clock", "- product started", began=began)

    def record(self, lane: str, kind: str, line: str, **facts: Any) -> None:
        """Writes an entry of a lane ("bus", ...) and a kind ("signal", ...), with the time."""
        stamp = round(time.monotonic() - self._began, 6)
        text = to_json({"time": stamp, "lane": lane, "kind": kind, "line": line, **facts})
        entry = text.encode(errors="replace")
        try:
            self._file.write(entry + b"\n")
        except OSError as error:
            # Without its first entry there is no product.
            if self._file.tell() == 0:
                raise
            if self._is_complete:
                print(f"virtual-product: the journal is not complete: {error.strerror}",
                      file=sys.stderr, flush=True)
            self._is_complete = False
        for listener in list(self.listeners):
            listener(entry)

    def contents(self) -> bytes:
        """Everything written so far, one entry per line."""
        with open(self.path, "rb") as file:
            return file.read()
