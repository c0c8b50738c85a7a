#!/usr/bin/env python3
"""Calls go down only: fails when a room of the library includes or calls one that stands above it.

    rooms.py ROOT    ROOT: the checkout, with base/library/database/rooms.txt

The rooms, their files and their order stand in rooms.txt. A function belongs to the room whose source
defines it (outside of anonymous namespaces, not static), or whose header does; a use of its name in
the code of another room is a call. Comments, texts and what is declared do not count.
"""

import bisect
import fnmatch
import pathlib
import re
import sys

LIST = "base/library/database/rooms.txt"
ROOTS = ("base/include", "base/library")
FOLDERS = ("database", "nim")

SILENT = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"(?P<mark>[^()\s\\]*)\(.*?\)(?P=mark)"'
    r'|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Fa-f])\'(?:\\.|[^\'\\\n])+\'',
    re.S,
)
INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*"([^"]+)"', re.M)
# A function's head at the start of a line; its type may stand on the line before.
HEAD = re.compile(r"^(?![ \t#}/])(?P<type>(?:[\w:<>,*&\[\]]+[ *&]+)*)(?P<name>[A-Za-z_]\w*)\(", re.M)
NAMESPACE = re.compile(r"^namespace \{$.*?^\}", re.M | re.S)
NO_FUNCTION = {"if", "for", "while", "switch", "return", "static_assert", "alignas", "decltype"}


def blank(match):
    """Nothing, on as many lines."""
    return "\n" * match.group().count("\n")


def silenced(text):
    return SILENT.sub(blank, text)


def end_of_parameters(text, at):
    depth = 0
    for at in range(at, len(text)):
        depth += (text[at] == "(") - (text[at] == ")")
        if depth == 0:
            return at + 1
    return len(text)


def functions(code, header):
    """Names of the functions that others can call, with the offsets where they are defined."""
    open_code = code if header else NAMESPACE.sub(lambda m: re.sub(r"[^\n]", " ", m.group()), code)
    found = []
    for head in HEAD.finditer(open_code):
        name = head.group("name")
        behind = open_code[end_of_parameters(open_code, head.end() - 1) :]
        if name in NO_FUNCTION or not re.match(r"\s*(?:const\s*)?(?:noexcept\s*)?\{", behind):
            continue
        before = open_code[: head.start()].rstrip().rpartition("\n")[2]
        static = "static" in head.group("type").split() or re.fullmatch(r"static [\w:*& ]+", before)
        if header or not static:
            found.append(name)
    return found


def local_names(code):
    """Names that a source has for itself: what it calls so is its own."""
    names = set()
    for region in NAMESPACE.findall(code):
        names.update(head.group("name") for head in HEAD.finditer(region))
    names.update(re.findall(r"^static [\w:<>*& ]*?\b(\w+)\(", code, re.M))
    return names


class House:
    """The rooms in their order, as rooms.txt tells them."""

    def __init__(self, text):
        self.order, self.patterns, self.only, self.umbrellas = [], [], {}, []
        for line in text.splitlines():
            line = line.partition("#")[0].strip()
            if not line:
                continue
            name, _, rest = line.partition(":")
            if name.endswith(" may include"):
                self.only[name.removesuffix(" may include")] = rest.split()
            elif name == "umbrella":
                self.umbrellas += rest.split()
            else:
                self.order.append(name)
                self.patterns += [(pattern, name) for pattern in rest.split()]

    def room(self, file):
        """The room of a file; None."""
        for pattern, name in self.patterns:
            if fnmatch.fnmatchcase(file, pattern):
                return name
        return None

    def is_above(self, room, other):
        return self.order.index(other) > self.order.index(room)


def sources(root):
    """{name as an #include has it: text}."""
    found = {}
    for base in ROOTS:
        for folder in FOLDERS:
            for path in sorted((root / base / folder).rglob("*")):
                if path.suffix in (".h", ".cpp"):
                    found[path.relative_to(root / base).as_posix()] = path.read_text()
    return found


class Judge:
    """What is wrong with a house and its files."""

    def __init__(self, house, files):
        self.house, self.files = house, files
        self.findings = []
        self.rooms = {name: house.room(name) for name in files if name not in house.umbrellas}
        self.code = {name: silenced(text) for name, text in files.items()}
        self.check_everything_has_a_room()
        for name in [name for name, room in self.rooms.items() if room]:
            self.check_includes(name)
        self.check_calls()

    def check_everything_has_a_room(self):
        for name, room in self.rooms.items():
            if room is None:
                self.findings.append(f"{name}: belongs to no room")
            elif room not in self.house.order:
                self.findings.append(f"{name}: no room {room}")

    def check_includes(self, name):
        room = self.rooms[name]
        for match in INCLUDE.finditer(self.files[name]):
            included = match.group(1)
            line = self.files[name].count("\n", 0, match.start()) + 1
            beside = f"{name.rpartition('/')[0]}/{included}"
            included = beside if beside in self.files else included
            if included in self.house.umbrellas:
                self.findings.append(f"{name}:{line}: includes the umbrella {included}")
            other = self.rooms.get(included)
            if other is None or other == room:
                continue
            allowed = self.house.only.get(room)
            if self.house.is_above(room, other):
                self.findings.append(
                    f"{name}:{line}: {room} includes {included}, of {other}, which stands above it"
                )
            elif allowed is not None and other != "nim" and included not in allowed:
                self.findings.append(f"{name}:{line}: {room} may not include {included}")

    def check_calls(self):
        homes = {}
        for name, room in self.rooms.items():
            if room:
                for function in functions(self.code[name], name.endswith(".h")):
                    homes.setdefault(function, set()).add(room)
        if not homes:
            return
        words = re.compile(r"(?<![\w.>])[A-Za-z_]\w*\b")
        for name, room in self.rooms.items():
            if not room:
                continue
            own = local_names(self.code[name])
            starts = [m.start() for m in re.finditer("^", self.code[name], re.M)]
            for use in words.finditer(self.code[name]):
                word = use.group()
                if word not in homes or word in own or self.is_declaration(name, use):
                    continue
                above = {h for h in homes[word] if self.house.is_above(room, h)}
                if above and above == homes[word]:
                    line = bisect.bisect(starts, use.start())
                    self.findings.append(
                        f"{name}:{line}: {room} calls {word}, of {min(above)},"
                        " which stands above it"
                    )

    def is_declaration(self, name, use):
        """What stands at the start of a header's line behind a type is a promise, no call."""
        code = self.code[name]
        if not code.startswith("(", use.end()):
            return False
        line = code[code.rfind("\n", 0, use.start()) + 1 : use.start()]
        behind = code[end_of_parameters(code, use.end()) :].lstrip()
        at_column_0 = not line or re.fullmatch(r"[A-Za-z_][\w:<>,*&\[\] ]*[ *&]", line)
        return bool(at_column_0) and not line.startswith("return") and behind.startswith(";")


def judge(root):
    root = pathlib.Path(root)
    return Judge(House((root / LIST).read_text()), sources(root)).findings


def main(arguments):
    if len(arguments) != 1:
        sys.exit(__doc__)
    findings = judge(arguments[0])
    for finding in findings:
        print(finding)
    print(f"{len(findings)} calls or includes that run up" if findings else "every call goes down")
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
