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
LEVELS = {"LogError": {1}, "LogWarning": {2}, "LogInformation": {4}, "LogTrace": {9}}
LITERAL = r'"((?:[^"\\]|\\.)*)"'


def read(*path):
    with open(os.path.join(ROOT, *path), encoding="utf-8") as file:
        return file.read()


def sources(*folders):
    """(name, text without comments) of each source file."""
    comment = re.compile(LITERAL + r"|//[^\n]*|/\*.*?\*/", re.DOTALL)
    for folder in folders:
        for path in sorted(glob.glob(os.path.join(ROOT, folder, "*.cpp"))):
            name = os.path.relpath(path, ROOT)
            yield name, comment.sub(lambda m: m[0] if m[0][0] == '"' else " ", read(name))


def arguments(text, opening):
    """The arguments of the call whose opening parenthesis is at that position."""
    found, depth, begin = [], 0, opening + 1
    for token in re.compile(LITERAL + r"|'(?:[^'\\]|\\.)'|[()\[\]{},]").finditer(text, opening):
        if token[0] in "([{":
            depth += 1
        elif token[0] in ")]}":
            depth -= 1
        if depth == 0 or (depth == 1 and token[0] == ","):
            found.append(text[begin:token.start()].strip())
            begin = token.end()
        if depth == 0:
            break
    return found


def calls(text, function):
    """(position, arguments) of each call of a function."""
    for match in re.finditer(r"\b" + function + r"\(", text):
        yield match.start(), arguments(text, match.end() - 1)


def literals(expression):
    return [part.replace('\\"', '"') for part in re.findall(LITERAL, expression)]


def enclosing_function(text, position):
    """Name of the function that a position is in: the last one that begins a line before it."""
    return re.findall(r"^\w[^\n;]*?(\w+)\([^;]*?\n\{", text[:position], re.MULTILINE)[-1]


def log_texts():
    """(format, levels, where) of each log line of the service."""
    found = []
    for name, text in sources(*SERVICE_FOLDERS):
        lines = [(position, values) for position, values in calls(text, "LOG_LINE")]
        lines += [(position, values[1:]) for position, values in calls(text, "LOG_LINE_FOR")]
        for position, values in lines:
            where = "%s:%d" % (name, text.count("\n", 0, position) + 1)
            levels = {2, 4} if values[0].startswith("levelOf(") else LEVELS.get(values[0])
            formats = ["".join(literals(values[1]))]
            if not levels or re.sub(LITERAL, "", values[1]).strip():
                raise AssertionError(where + ": a level or format that this test cannot read")
            if formats == ["%s"] and levels & {1, 2}:
                # The texts are those that the function is called with.
                function = enclosing_function(text, position)
                formats = [t for _, values in calls(text, function) for t in literals(values[0])]
                if not formats:
                    raise AssertionError("%s: no call of %s has a text" % (where, function))
            found += [(text_format, levels, where) for text_format in formats]
    return found


def platform_texts():
    """(a part of the text, levels, where) of each error and warning of the host platform."""
    found = []
    for name, text in sources("platform/host"):
        for function in ("platformLog", "log"):
            for _, values in calls(text, function):
                if values[0] in ("1", "2"):
                    part = re.sub(r"%\d", "%s", "".join(literals(",".join(values[1:]))))
                    found.append((part.strip(), {int(values[0])}, name))
    return found


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
            for _, (group, key, default, *_) in calls(text, "ReadConfigValue"):
                found += 1
                isNumber = re.fullmatch(r"-?\d+", default)
                value = constants.get(default, "empty" if default == "QString()" else default)
                entry = "%s (%s, default %s)" % (literals(key)[0],
                                                 "integer" if isNumber else "text",
                                                 value.strip('"'))
                groups = re.split(r"^\.SS Section ", settings, flags=re.MULTILINE)
                described = [s for s in groups if s.startswith("[%s]" % constants[group])]
                self.assertEqual(len(described), 1, constants[group])
                self.assertIn(".BR %s\n" % entry, described[0], "%s: %s" % (name, entry))
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
