"""The board's sound, as board-output.c writes it down, and what a phone plays: measured by sox."""

import array
import json
import math
import re
import shlex
import shutil
import statistics
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

RATE = 44100
FRAME = 4  # bytes: s16le, stereo
FORMAT = ["-t", "raw", "-r", str(RATE), "-c", "2", "-b", "16", "-e", "signed", "-"]
TONE = ["synth", "sine", "440", "sine", "660", "vol", "0.5"]


class Recording:
    """What the board plays, while it plays it."""

    def __init__(self, folder: Path):
        self.path = folder / "board.raw"
        # It begins when the journal does.
        with (folder / "journal.jsonl").open() as journal:
            self._began = json.loads(journal.readline())["began"]

    def now(self) -> int:
        """In frames from the beginning."""
        return int((time.monotonic() - self._began) * RATE)

    def heard(self, seconds: float) -> bytes:
        """What was heard in the last `seconds`; silence is silence, whatever the reason."""
        count = round(seconds * RATE)
        first = self.now() - count
        with self.path.open("rb") as file:
            file.seek(max(first, 0) * FRAME)
            missing = min(max(-first, 0), count)
            sound = bytes(missing * FRAME) + file.read((count - missing) * FRAME)
        return sound.ljust(count * FRAME, b"\0")


@dataclass
class Channel:
    """RMS level in dB of the full scale, None for silence, and the frequency in hertz, which is
    rough for anything but a tone."""

    level: float | None
    frequency: float | None

    def __str__(self) -> str:
        if self.level is None:
            return "silence"
        return f"{self.frequency:.0f} Hz {self.level:6.2f}"


def measure(sound: bytes) -> tuple[Channel, Channel]:
    """The left and the right channel."""
    return _measure_channel(sound, 1), _measure_channel(sound, 2)


def _statistics(source: list[str], *effects: str, sound: bytes = b"") -> dict[str, float]:
    """What sox tells of a sound; OSError with its reason."""
    sox = subprocess.run(["sox", "-V1", *source, "-n", *effects, "stat"], input=sound,
                         capture_output=True, check=False)
    stat = re.sub(" +", " ", sox.stderr.decode())
    if sox.returncode:
        raise OSError(stat.strip().rpartition(": ")[2])
    return {name: float(value)
            for name, value in re.findall(r"^(.*\S)\s*:\s*(-?[0-9.]+)$", stat, re.M)}


def _measure_channel(sound: bytes, number: int) -> Channel:
    values = _statistics(FORMAT, "remix", str(number), sound=sound)
    rms, delta = values["RMS amplitude"], values["RMS delta"]
    if values["Maximum amplitude"] == values["Minimum amplitude"]:
        return Channel(None, None)
    # What a sine of this amplitude and slope has.
    frequency = RATE / math.pi * math.asin(min(delta / (2 * rms), 1))
    return Channel(20 * math.log10(rms), frequency)


def why_unplayable(audio: Path, folder: Path | None = None) -> str:
    """Why a phone cannot play this file, or its copy in the folder; empty when it can."""
    if not audio.is_file():
        return f"{audio} is no file" if audio.exists() else f"there is no {audio}"
    if audio.stat().st_size == 0:
        return f"{audio} is empty"
    try:
        values = _statistics([str(audio)], "trim", "0", "60")
    except OSError as reason:
        return (f"sox cannot read {audio} ({reason}); convert it, as with "
                f"ffmpeg -i {shlex.quote(str(audio))} {shlex.quote(f'{audio}.wav')}")
    is_silent = values["Maximum amplitude"] == values["Minimum amplitude"]
    if is_silent:
        return f"nothing can be heard in the first minute of {audio}"
    length = subprocess.run(["sox", "--i", "-D", audio], stdout=subprocess.PIPE, check=True).stdout
    needed, free = float(length) * RATE * FRAME, shutil.disk_usage(folder or audio).free
    if folder and needed > free:
        return (f"the disk of {folder} is full: {free / 1e6:.0f} MB are free, {needed / 1e6:.0f} "
                f"are needed for a copy of {audio}")
    return ""


def phone_sound(audio: Path | None, seconds: float) -> bytes:
    """The beginning of what a phone plays: a file, again and again, or else the test tone."""
    source = ["-n"] if audio is None else [str(audio)]
    effects = list(TONE) if audio is None else ["repeat", "-"]
    effects += ["trim", "0", str(seconds)]
    return subprocess.run(["sox", "-D", "-V1", *source, *FORMAT, *effects],
                          stdout=subprocess.PIPE, check=True).stdout


class Loudness:
    """How loud a sound is, step by step of 5 ms, to find where one was taken from another."""

    STEP = RATE // 200
    SECONDS = STEP / RATE
    BYTES = STEP * FRAME

    def __init__(self, sound: bytes):
        samples = array.array("h", sound)
        self.steps = [math.sqrt(sum(sample * sample for sample in samples[at:at + 2 * self.STEP:3]))
                      for at in range(0, len(samples), 2 * self.STEP)]

    def gaps(self) -> float:
        """How many seconds of a sound that is steady are missing."""
        usual = statistics.median(self.steps)
        return sum(step < usual / 2 for step in self.steps) * self.SECONDS

    def place_of(self, part: "Loudness", earliest: int, latest: int) -> int:
        """The step in `earliest`..`latest` from which on this goes up and down as `part` does."""
        return max(range(earliest, latest + 1), key=lambda at: self._likeness(part.steps, at))

    def _likeness(self, part: list[float], at: int) -> float:
        here = self.steps[at:at + len(part)]
        product = sum(a * b for a, b in zip(here, part))
        return product / (math.sqrt(sum(a * a for a in here)) or 1)
