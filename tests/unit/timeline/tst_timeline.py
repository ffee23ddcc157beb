"""What the page of a run says, as a browser shows it."""
import array
import html.parser
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

WRITE = pathlib.Path(__file__).parents[3] / "simulator" / "timeline" / "write"
CHROMIUM = shutil.which("chromium")
OPTIONS = ["--headless", "--no-sandbox", "--disable-gpu", "--no-first-run", "--disable-quic",
           "--disable-background-networking", "--disable-component-update", "--disable-sync"]
KINDS = {"&": "start", "$": "start", ".": "end", "*": "phone", "-": "control", "@": "call"}
SILENCE = array.array("h", bytes(4 * 44100))  # a second
SOUND = array.array("h", [16384] * (2 * 44100))

START = """
0.1 & service
0.2 4 startStartupSequence requested
0.3 & bluetoothd -n
0.5 4 agent started and wait registration
1.0 - phone anna connect
1.1 * anna link-up
1.2 2 trust for anna is false
1.5 * anna stream-open
1.6 & pulseaudio --system
1.8 4 wait pulseaudio bluetooth module ready... 1
1.9 4 wait pulseaudio bluetooth module ready... 2
"""
PLAY = START + """
2.0 @ ConnectAudioDevice
2.1 @ PlayBluetooth
2.2 * anna playing
4.2 * anna paused
"""
STOP = """
9.0 . bluetoothd ended with status 0
9.1 . service ended with status 0
"""


def entry(text: str) -> dict:
    """The journal's entry of "TIME LINE"."""
    time, line = text.split(" ", 1)
    words = line.split()
    kind = KINDS.get(words[0], "log")
    facts = {"time": float(time), "kind": kind, "line": line,
             "lane": {"call": "bus", "control": "control"}.get(kind, "service")}
    if kind in ("start", "end"):
        facts.update(program=words[1], pid=7)
    if kind == "end":
        facts["signal" if words[-2] == "signal" else "status"] = int(words[-1])
    elif kind == "phone":
        facts.update(phone=words[1], state=words[2])
    elif kind == "call":
        facts.update(member=words[1], interface="")
    return facts


class Page(html.parser.HTMLParser):
    """The page as a browser made it: texts by the id around them, and elements."""

    def __init__(self, source: str):
        super().__init__()
        self.place = ""
        self.texts: dict[str, list[str]] = {}
        self.elements: list[tuple[str, str]] = []  # name, class
        self.feed(source)

    def handle_starttag(self, tag, attributes):
        self.place = dict(attributes).get("id", self.place)
        self.elements.append((tag, dict(attributes).get("class") or ""))

    def handle_data(self, data):
        if data.strip():
            self.texts.setdefault(self.place, []).append(data)


@unittest.skipUnless(CHROMIUM, "there is no chromium")
class Timeline(unittest.TestCase):
    def page(self, journal: str, more: str = "", sound: array.array | None = None) -> Page:
        with tempfile.TemporaryDirectory() as folder:
            out = pathlib.Path(folder)
            entries = [entry(line) for line in journal.splitlines() if line]
            entries[0]["monotonic"] = 100 + entries[0]["time"]
            lines = [json.dumps(one) + "\n" for one in entries]
            (out / "journal.jsonl").write_text("".join(lines) + more)
            if sound is not None:
                (out / "board.raw").write_bytes(sound.tobytes())
                (out / "board.raw.start").write_text("102.000000000\n")
            subprocess.run([WRITE, out], check=True)
            shown = subprocess.run(
                [CHROMIUM, *OPTIONS, f"--user-data-dir={folder}/browser", "--window-size=1400,900",
                 "--dump-dom", f"file://{folder}/timeline.html"],
                check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                env={**os.environ, "HOME": folder})
        return Page(shown.stdout)

    def check(self, page: Page, sentence: str, troubles: list[str]):
        self.assertEqual(page.texts["sentence"], [sentence])
        self.assertEqual(page.texts["troubles"], troubles)

    def test_phone_that_plays(self):
        page = self.page(PLAY + STOP, sound=SILENCE + SOUND)
        self.check(page, "The phone anna played from 2.2 s to 4.2 s; "
                   "the service ended with status 0.", ["1 warning"])
        self.assertIn("PlayBluetooth", page.texts["picture"])
        self.assertIn(("rect", "piece phone playing"), page.elements)

    def test_phone_whose_loopback_is_refused(self):
        page = self.page(START + "2.0 1 error starting pulseaudio, so disconnect\n"
                         "2.1 * anna playing\n2.2 * anna link-down" + STOP)
        self.check(page, "The phone anna connected but never played: the loopback to its source "
                   "was refused 3 times; the service ended with status 0.",
                   ["1 give-up", "1 warning"])
        self.assertNotIn(("rect", "piece phone playing"), page.elements)

    def test_daemon_that_is_killed(self):
        page = self.page(PLAY + "5.0 . bluetoothd ended by signal 9\n5.0 2 bluezDown down 9 crash\n"
                         "5.0 4 forceSyncDown\n6.0 & bluetoothd -n\n"
                         "6.5 4 agent started and wait registration\n"
                         "7.0 - error: there is no phone" + STOP)
        self.check(page, "The phone anna played from 2.2 s to 4.2 s; bluetoothd was killed at "
                   "5.0 s; the stack was back after 1.5 s; the service ended with status 0.",
                   ["1 crash", "2 warnings", "1 failure"])

    def test_sound_that_comes_too_late(self):
        page = self.page(PLAY + STOP, sound=SILENCE * 5 + SOUND)
        self.check(page, "The phone anna played from 2.2 s to 4.2 s, but nothing was heard; "
                   "the service ended with status 0.", ["1 warning"])

    def test_hostile_journal(self):
        name = "</script><img/src=x>"
        page = self.page(f"0.1 - phone {name} connect\n0.2 1 <em>{name}</em>",
                         more='{"time":NaN,"lane":"bus","kind":"call","line":"> A"}\n[[]]\n{"ti')
        self.check(page, f"The phone {name} never got a link; the service never ran.", ["1 error"])
        self.assertEqual(page.texts["size"], ["2 entries in 0.2 s, and 3 unreadable lines"])
        self.assertIn(f"1 <em>{name}</em>", page.texts["journal"])
        self.assertFalse({"img", "em"} & {tag for tag, style in page.elements})


if __name__ == "__main__":
    unittest.main()
