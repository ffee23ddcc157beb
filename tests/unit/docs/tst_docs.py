#!/usr/bin/python3
"""Holds what people read to the code: log texts, settings, the interface, links."""
import glob
import os
import re
import unittest
import xml.etree.ElementTree

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
FOLDERS = [entry.name for entry in os.scandir(ROOT)
           if entry.is_dir() and not entry.name.startswith(("build", ".git"))]
SERVICE_FOLDERS = ("service", "manager", "dbus")
LEVELS = {"LogError": {1}, "LogWarning": {2}, "levelOf": {2, 4}, "LogInformation": {4},
          "LogTrace": {9}}
LITERALS = r'((?:\s*"(?:[^"\\]|\\.)*")+)'


def read(*path: str) -> str:
    with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
        return file.read()


def sources(*folders: str):
    """(name, text) of each source file."""
    for folder in folders:
        for path in sorted(glob.glob(os.path.join(ROOT, folder, "*.cpp"))):
            yield os.path.relpath(path, ROOT), read(path)


def pages():
    """(name, text) of each Markdown page."""
    for folder in ("", "docs"):
        for path in sorted(glob.glob(os.path.join(ROOT, folder, "*.md"))):
            yield os.path.relpath(path, ROOT), read(path)


def joined(literals: str) -> str:
    return "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', literals)).replace('\\"', '"')


def log_texts():
    """(pattern of the headings that explain it, text, levels, file) of each log line."""
    log_line = re.compile(r"\bLOG_LINE(?:\(|_AS\([\w:]+,\s*\w+,\s*)(\w+)(?:\(\w+\))?," + LITERALS)
    for name, text in sources(*SERVICE_FOLDERS):
        lines = log_line.findall(text)
        if len(lines) != len(re.findall(r"\bLOG_LINE", text)):
            raise AssertionError(name + ": a log line that this test cannot read")
        for level, literals in lines:
            format_ = joined(literals)
            # The beginning may vary: the heading then quotes it as it is, or what comes of it.
            varied = ".+".join(re.escape(part) for part in re.split("%[sd]", format_))
            varies = format_.startswith("%s") and format_ != "%s"
            yield varied if varies else re.escape(format_), format_, LEVELS[level], name
    for name, text in sources("platform/host"):
        for level, rest in re.findall(r"\b(?:platformLog|log)\(([12]),([^;]*);", text):
            part = re.sub(r"%\d", "%s", joined(rest)).strip()
            yield ".*" + re.escape(part) + ".*", part, {int(level)}, name


def man_page_section(name: str, title: str) -> str:
    """Its text with the escapes undone and the quotes of macro arguments taken away."""
    page = read("docs", name).replace(r"\-", "-").replace(r"\&", "")
    page = re.sub(r" +", " ", re.sub(r"\\f.", "", page).replace('"', ""))
    return re.search(rf"^\.SH {title}\n(.*?)(?=^\.SH |\Z)", page, re.M | re.S)[1]


class Docs(unittest.TestCase):
    maxDiff = None

    def test_log_texts(self):
        """Errors and warnings are explained with their levels, and nothing that is none."""
        explained = {}
        for section in read("docs", "troubleshooting.md").split("\n### ")[1:]:
            heading, _, body = section.partition("\n")
            explained.update((text, body) for text in re.findall(r"`([^`]+)`", heading))
        wrong, known = [], set()
        for pattern, text, levels, name in log_texts():
            headings = [quoted for quoted in explained
                        if quoted == text or re.fullmatch(pattern, quoted)]
            known.update(headings)
            if levels & {1, 2} and not headings:
                wrong.append(f'{name}: "{text}" has no heading')
            wrong += [f'{name}: "{text}" comes at level {level}'
                      for quoted in headings for level in levels
                      if not re.search(rf"\b(Level|or) {level}\b", explained[quoted])]
        wrong += [f'"{quoted}" is no log text' for quoted in explained if quoted not in known]
        self.assertEqual(wrong, [])

    def test_settings(self):
        """Every setting is in the daemon's man page, with its section, type and default."""
        settings = man_page_section("bluetoothmanager.8", "SETTINGS")
        code = "".join(text for _, text in sources("manager")) + read("manager", "Settings.h")
        constants = dict(re.findall(r'const char (\w+)\[\] = "([^"]*)"', code))
        reads = re.findall(r'\bread(Text|Integer)\(\*?configuration, (?:(\w+), )?"([^"]+)", '
                           r'("?)(\w*)\4\)', code)
        self.assertGreater(len(reads), 6)
        self.assertEqual(code.count("ReadConfigValue("), 2, "a setting is read in another way")
        for kind, section, key, _, default in reads:
            value = constants.get(default, default) or "empty"
            entry = f"{key} ({kind.lower()}, default {value})"
            described = re.search(rf"^\.SS Section \[{constants[section or 'Bluetooth']}\]"
                                  r"(.*?)(?=^\.SS|\Z)", settings, re.M | re.S)[1]
            self.assertIn(f".BR {entry}\n", described)

    def test_interface(self):
        """The interface's man page has its methods and signals, and no others."""
        description = xml.etree.ElementTree.fromstring(
            read("dbus", "com.orbitalis.ulmo.bluetoothinterface.xml"))

        def listed(member, direction):
            arguments = [argument.get("type") + " " + argument.get("name")
                         for argument in member if argument.get("direction") == direction]
            return f"({', '.join(arguments)})"

        wanted = {
            "METHODS": [f"{method.get('name')}{listed(method, 'in')} -> {listed(method, 'out')}"
                        for method in description.iter("method")],
            "SIGNALS": [signal.get("name") + listed(signal, None)
                        for signal in description.iter("signal")]}
        for title, members in wanted.items():
            page = man_page_section("com.orbitalis.ulmo.bluetoothinterface.5", title)
            self.assertCountEqual(re.findall(r"^\.TP\n\.B (\w+\(.*)$", page, re.M), members)

    def test_links(self):
        """What relative links lead to, and files that are named in passing, exist."""
        broken = []
        for page, text in pages():
            for link in re.findall(r"\]\((?!\w+:)([^)\s]+)\)", text):
                target = link.partition("#")[0] or os.path.basename(page)
                if not os.path.exists(os.path.join(ROOT, os.path.dirname(page), target)):
                    broken.append(f"{page}: {link} does not exist")
            for path in re.findall(rf"`((?:{'|'.join(FOLDERS)})/[\w./*-]+)`", text):
                if "NAME" not in path and not glob.glob(os.path.join(ROOT, path)):
                    broken.append(f"{page}: {path} does not exist")
        self.assertEqual(broken, [])


if __name__ == "__main__":
    unittest.main()
