#!/usr/bin/python3
"""tst_client.py CLIENT...: log lines and settings of the host platform, through a client."""
import os
import subprocess
import sys
import tempfile
import time
import unittest

CLIENT = sys.argv[1:]
ZEROS = b"[S]\n" + bytes(64)  # as after a crash
COMMENTED = ("# Product\n\n[A]\n; the name\nN=x y\nN[de]=z\n\n  ; Radio\n\n"
             "[S]\nL=5\n;K=1\n#\x1f;b\n;\nunknown=\\s;\n")


class Log(unittest.TestCase):
    def logged(self, level: int, text: bytes, journal: bool) -> bytes:
        """What the client writes on standard error."""
        with tempfile.TemporaryFile() as error:
            status = os.fstat(error.fileno())
            # A program whose output was redirected inherits a variable that is not for it.
            stream = f"{status.st_dev}:{status.st_ino + (not journal)}"
            subprocess.run([*CLIENT, "log", str(level), text], stderr=error, check=True,
                           env=os.environ | {"JOURNAL_STREAM": stream, "TZ": "WEST+09:30"})
            error.seek(0)
            return error.read()

    def test_lines(self):
        """A line is one line of whole characters, with the local time before it."""
        fill = b"x" * (2047 - len("HH:MM:SS.mmm 4 /a "))
        for text, expected in (
                (b"one [two] 50%s", b"one [two] 50%s"),
                (b"x\r\n<0>y\t\x1b\x7f.", b"x  <0>y   ."),
                (fill + b"x", fill),
                (fill[1:] + "ü".encode(), fill[1:]),
                ("€".encode() + b"\xf0\x9f\x8e", "€".encode()),
                (fill[4:] + "🎵".encode(), fill[4:] + "🎵".encode())):
            clock, _, rest = self.logged(4, text, False).partition(b" ")
            self.assertEqual(rest, b"4 /a " + expected + b"\n")
            hour, minute, second = clock.split(b":")
            since_midnight = int(hour) * 3600 + int(minute) * 60 + float(second)
            self.assertLess((time.time() - 9.5 * 3600 - since_midnight) % 86400, 60)

    def test_journal(self):
        """The journal is given priorities, and has a clock of its own."""
        for level, priority in ((1, 3), (2, 4), (4, 6), (9, 7)):
            self.assertEqual(self.logged(level, b"x", True), b"<%d>%d /a x\n" % (priority, level))

    def test_signal_handler(self):
        """A signal handler may log at any moment, even where nobody takes it."""
        client = subprocess.run([*CLIENT, "signals"], stderr=subprocess.PIPE, check=True)
        with open("/dev/full", "wb") as full:
            subprocess.run([*CLIENT, "signals"], stderr=full, check=True)
        self.assertGreaterEqual(client.stderr.count(b"2 /signal from the signal handler\n"), 2000)


class Settings(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.path = self.folder.name + "/settings.ini"

    def start(self, *arguments: str) -> subprocess.Popen:
        return subprocess.Popen([*CLIENT, *arguments], stdin=subprocess.PIPE, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                env=os.environ | {"ULMO_SETTINGS": self.path})

    def run_client(self, *arguments: str):
        """(what it prints, what it logs)"""
        return self.start(*arguments).communicate()

    def write(self, key: str, text: str):
        self.assertIn("written\n", self.run_client("write", key, text)[0])

    def store(self, content):
        with open(self.path, "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())

    def content(self) -> str:
        with open(self.path, encoding="utf-8", newline="") as file:
            return file.read()

    def test_reads(self):
        """Texts as they are; integers only when they are decimal ones, with a warning if not."""
        for content, text, number in (
                ("[S]\nK=  05000\n", "05000", 5000),
                ("[S]\nK=-5\n", "-5", -5),
                ("[S]\nK=2147483648\n", "2147483648", None),
                ("[S]\nK=5 ; five\n", "5 ; five", None),
                ("\n  [S]  \nK  =  Living Room #2\n", "Living Room #2", None),
                ("[S]\nK=\\sC:\\Audio=;\\t\\\\n\\\n", " C:\\Audio=;\t\\n\\", None),
                ("[S]\nK=\n", "", None),
                ("[S]\nK=1\n[X]\n[S]\nK=2", "2", 2),
                ("\ufeff; Notiz\r\n[S]\r\n\r\nK=Küche\r\n", "Küche", None),
                ("[s]\nK=1\n", None, None),
                ("; a\n# b\n ;c=d\n[S]\n;K=1\n#K=2\n", None, None)):
            with self.subTest(content):
                self.store(content)
                printed, logged = self.run_client("read")
                self.assertEqual(printed.splitlines(), [
                    "valid", "default 0" if text is None else f"{text} 1",
                    "77 0" if number is None else f"{number} 1"])
                warning = f'2 /object settings file {self.path} [S] K: "{text}" '.replace("\t", " ")
                self.assertEqual(warning in logged, text is not None and number is None)

    def test_unusable(self):
        """A file that cannot be understood is neither taken for empty nor overwritten."""
        for content, reason in ((b"[S]\nK=1\n\nstray\n", "Key file contains line “stray”"),
                                (ZEROS, "not UTF-8 text")):
            self.store(content)
            printed, logged = self.run_client("write", "K", "2")
            self.assertEqual(printed, "invalid\nfailed\ndefault 0\n77 0\n")
            self.assertEqual(
                logged.count(f"1 /object settings file {self.path} unusable: {reason}"), 2)
            self.assertEqual(self.content(), content.decode())
        self.path += "/below.a.file"
        self.assertIn("invalid\n", self.run_client("read")[0])

    def test_writes(self):
        """Comments, order and unknown keys stay; no other file is left."""
        self.store(COMMENTED)
        self.write("K", "1٢")
        self.assertEqual(self.content(), COMMENTED + "K=1٢\n")
        self.write("L", "6")
        self.assertEqual(self.content(), COMMENTED.replace("L=5", "L=6") + "K=1٢\n")
        self.store(";x")
        self.write("K", "1")
        self.assertRegex(self.content(), "^;x\n\n?\\[S]\nK=1\n$")  # the blank line with some GLib
        self.assertEqual(os.listdir(self.folder.name), ["settings.ini"])

    def test_first_writes(self):
        """The folder is made; what somebody else has written meanwhile stays."""
        self.path = self.folder.name + "/a/b/settings.ini"
        early = self.start("write", "L", "2")
        self.assertEqual(early.stdout.readline(), "valid\n")
        self.write("K", "1")
        self.assertEqual(os.stat(self.path).st_mode & 0o777, 0o600)
        self.assertEqual(early.communicate()[0], "written\n1 1\n1 1\n")
        self.assertEqual(self.content(), "[S]\nK=1\nL=2\n")

    def test_replacement(self):
        """A new file takes the old one's place behind links, with its owner and mode."""
        os.mkdir(self.folder.name + "/data")
        os.symlink("hop", self.path)
        os.symlink("data/real.ini", self.folder.name + "/hop")
        self.write("K", "1")
        if os.geteuid() == 0:
            os.chown(self.path, 1234, 5678)
        os.chmod(self.path, 0o664)
        before = os.stat(self.path)
        self.write("K", "2")
        after = os.stat(self.path)
        self.assertEqual((after.st_mode, after.st_uid, after.st_gid),
                         (before.st_mode, before.st_uid, before.st_gid))
        # Whoever reads meanwhile, or after a crash, finds all of the old or of the new one.
        self.assertNotEqual(after.st_ino, before.st_ino)
        self.assertTrue(os.path.islink(self.path) and os.path.islink(self.folder.name + "/hop"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
