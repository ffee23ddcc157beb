"""Holds what people read to the code: log texts, settings, the interface, links."""
import glob
import os
import re
import shutil
import subprocess
import unittest
import xml.etree.ElementTree

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
SERVICE_FOLDERS = ("service", "manager", "dbus")
LEVELS = {"LogError": {1}, "LogWarning": {2}, "levelOf": {2, 4}, "LogInformation": {4},
          "LogTrace": {9}}
LITERAL = r'"((?:[^"\\]|\\.)*)"'
LITERALS = r'((?:\s*"(?:[^"\\]|\\.)*")+)'


def read(*path):
    with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
        return file.read()


def sources(*folders):
    """(name, text) of each source file."""
    for folder in folders:
        for path in sorted(glob.glob(os.path.join(ROOT, folder, "*.cpp"))):
            name = os.path.relpath(path, ROOT)
            yield name, read(name)


def joined(literals):
    return "".join(re.findall(LITERAL, literals)).replace('\\"', '"')


def log_texts():
    """(format, levels, where) of each log line of the service."""
    log_line = re.compile(r"\bLOG_LINE(?:\(|_FOR\([\w:]+,\s*)(\w+)(?:\(\w+\))?," + LITERALS)
    found = []
    for name, text in sources(*SERVICE_FOLDERS):
        lines = list(log_line.finditer(text))
        if len(lines) != len(re.findall(r"\bLOG_LINE", text)):
            raise AssertionError(name + ": a log line that this test cannot read")
        for line in lines:
            levels, formats = LEVELS[line[1]], [joined(line[2])]
            if formats == ["%s"] and levels & {1, 2}:
                # The texts are those that the function is called with.
                heads = re.findall(r"^\w[^\n;]*?(\w+)\([^;]*?\n\{", text[:line.start()], re.M)
                formats = [joined(call) for call in re.findall(heads[-1] + r"\(" + LITERALS, text)]
                if not formats:
                    raise AssertionError("%s: no call of %s has a text" % (name, heads[-1]))
            where = "%s:%d" % (name, text.count("\n", 0, line.start()) + 1)
            found += [(text_format, levels, where) for text_format in formats]
    return found


def platform_texts():
    """(a part of the text, levels, where) of each error and warning of the host platform."""
    return [(re.sub(r"%\d", "%s", joined(rest)).strip(), {int(level)}, name)
            for name, text in sources("platform/host")
            for level, rest in re.findall(r"\b(?:platformLog|log)\(([12]),([^;]*);", text)]


def fits(text_format, quoted):
    """Whether a heading quotes the text, or one that it becomes where its beginning varies."""
    if text_format == quoted or text_format == "%s" or not text_format.startswith("%s"):
        return text_format == quoted
    end = ".+".join(re.escape(part) for part in re.split(r"%[sd]", text_format))
    return re.fullmatch(end, quoted) is not None


def explained_texts():
    """{text: what follows} of each text that a heading of the troubleshooting page quotes."""
    found = {}
    page = read("docs", "troubleshooting.md")
    for section in re.split(r"^### ", page, flags=re.MULTILINE)[1:]:
        heading, _, body = section.partition("\n")
        for text in re.findall(r"`([^`]+)`", heading):
            found[text] = body
    return found


def man_page(name):
    """Its text with the escapes undone and the quotes of macro arguments taken away."""
    text = read("docs", name).replace(r"\-", "-").replace(r"\&", "")
    return re.sub(r" +", " ", re.sub(r"\\f.", "", text).replace('"', ""))


def section(page, title):
    return re.search(r"^\.SH " + title + r"\n(.*?)(?=^\.SH |\Z)", page, re.M | re.S)[1]


def slugs(markdown):
    """The anchors of the headings."""
    outside_code = re.sub(r"^```.*?^```", "", markdown, flags=re.M | re.S)
    headings = re.findall(r"^#+ (.*)$", outside_code, re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


class Docs(unittest.TestCase):
    longMessage = False

    def test_log_texts(self):
        """Errors and warnings are explained with their levels, and nothing that is none."""
        explained = explained_texts()
        service = log_texts()
        self.assertGreater(len(service), 50)
        platform = platform_texts()
        self.assertGreater(len(platform), 3)
        texts = [(text, levels, where, [quoted for quoted in explained if fits(text, quoted)])
                 for text, levels, where in service]
        texts += [(text, levels, where, [quoted for quoted in explained if text in quoted])
                  for text, levels, where in platform]
        missing = []
        known = set()
        for text, levels, where, headings in texts:
            known.update(headings)
            if levels & {1, 2} and not headings:
                missing.append('%s: "%s" has no heading' % (where, text))
            for quoted in headings:
                for level in levels:
                    if not re.search(r"\b(Level|or) %d\b" % level, explained[quoted]):
                        missing.append('%s: "%s" comes at level %d' % (where, text, level))
        missing += ['"%s" is no log text' % quoted for quoted in explained if quoted not in known]
        self.assertFalse(missing, "\n" + "\n".join(missing))

    def test_settings(self):
        """Every setting is in the daemon's man page, with its section, type and default."""
        settings = section(man_page("bluetoothmanager.8"), "SETTINGS")
        found = 0
        for name, text in sources(*SERVICE_FOLDERS):
            constants = dict(re.findall(r"const char (\w+)\[\] = " + LITERAL, text))
            reads = re.findall(r"ReadConfigValue\((\w+), " + LITERAL + r", ([^,]+),", text)
            self.assertEqual(len(reads), text.count("ReadConfigValue("), name)
            for group, key, default in reads:
                found += 1
                kind = "integer" if re.fullmatch(r"-?\d+", default) else "text"
                value = constants.get(default, "empty" if default == "QString()" else default)
                entry = "%s (%s, default %s)" % (key, kind, value.strip('"'))
                described = re.search(r"^\.SS Section \[%s\](.*?)(?=^\.SS|\Z)" % constants[group],
                                      settings, re.M | re.S)[1]
                self.assertIn(".BR %s\n" % entry, described, "%s: %s" % (name, entry))
        self.assertGreater(found, 6)

    def test_environment(self):
        """Every variable that is read or set is in the daemon's man page."""
        environment = section(man_page("bluetoothmanager.8"), "ENVIRONMENT")
        variables = set()
        for _, text in sources(*SERVICE_FOLDERS, "platform/host"):
            variables.update(re.findall(r'\b(?:q?getenv|environmentValue)\("(\w+)"\)', text))
            variables.update(re.findall(r'\benvironment\.insert\("(\w+)"', text))
        self.assertGreater(len(variables), 4)
        for variable in variables:
            self.assertRegex(environment, r"(?m)^\.BR? %s\b" % variable, variable)

    def test_interface(self):
        """The interface's man page has its methods and signals, and no others."""
        description = xml.etree.ElementTree.fromstring(
            read("dbus", "com.orbitalis.ulmo.bluetoothinterface.xml"))
        wanted = {"METHODS": set(), "SIGNALS": set()}

        def listed(member, direction):
            return "(%s)" % ", ".join(
                "%s %s" % (argument.get("type"), argument.get("name"))
                for argument in member.iter("arg") if argument.get("direction") == direction)

        for method in description.iter("method"):
            wanted["METHODS"].add("%s%s -> %s" % (method.get("name"), listed(method, "in"),
                                                  listed(method, "out")))
        for signal in description.iter("signal"):
            wanted["SIGNALS"].add(signal.get("name") + listed(signal, None))
        page = man_page("com.orbitalis.ulmo.bluetoothinterface.5")
        for title, members in wanted.items():
            self.assertTrue(members)
            described = re.findall(r"^\.TP\n\.B (\w+\(.*)$", section(page, title), re.MULTILINE)
            self.assertEqual(set(described), members)
            self.assertEqual(len(described), len(members))

    def test_man_pages(self):
        """groff has nothing to say about them."""
        if not shutil.which("groff"):
            self.skipTest("groff is not installed")
        pages = glob.glob(os.path.join(ROOT, "docs", "*.[1-8]"))
        self.assertGreater(len(pages), 2)
        for page in pages:
            groff = subprocess.run(["groff", "-ww", "-man", "-Tutf8", "-z", page],
                                   stderr=subprocess.PIPE, text=True, check=False)
            self.assertEqual((groff.returncode, groff.stderr), (0, ""), page + "\n" + groff.stderr)

    def test_links(self):
        """Relative links, their anchors, and files that are named in passing, exist."""
        folders = [entry.name for entry in os.scandir(ROOT)
                   if entry.is_dir() and not entry.name.startswith(("build", ".git"))]
        named = re.compile(r"`((?:%s)/[\w./*-]+)`" % "|".join(map(re.escape, folders)))
        pages = [os.path.relpath(page, ROOT) for folder in ("", "docs")
                 for page in glob.glob(os.path.join(ROOT, folder, "*.md"))]
        self.assertGreater(len(pages), 3)
        broken = []
        for page in pages:
            text = read(page)
            for link in re.findall(r"\]\(([^)\s]+)\)", text):
                if re.match(r"\w+:", link):
                    continue
                target, _, anchor = link.partition("#")
                file = os.path.join(os.path.dirname(page), target) if target else page
                if not os.path.exists(os.path.join(ROOT, file)):
                    broken.append("%s: %s does not exist" % (page, link))
                elif anchor and anchor not in slugs(read(file)):
                    broken.append("%s: %s has no such heading" % (page, link))
            for path in named.findall(text):
                if "NAME" not in path and not glob.glob(os.path.join(ROOT, path)):
                    broken.append("%s: %s does not exist" % (page, path))
        self.assertFalse(broken, "\n" + "\n".join(broken))


if __name__ == "__main__":
    unittest.main()
