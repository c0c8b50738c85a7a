#!/usr/bin/env python3
"""Prints for every exported function how many tests call it; fails when one has none.

A test is the body of a TEST, TEST_F or TEST_P. It calls a function when it names it, when a helper
or a table of the same file that it names does, when its suite has it as a parameter, or when it
names a macro or an inline function of the headers that does. Names in comments and in texts
(expected trace lines) do not count.

    inventory.py ROOT EXPORTS...    ROOT: the checkout; EXPORTS: files of exported names
"""

import pathlib
import re
import sys

# Comments, string and character literals: what stands in them calls nothing.
SILENT = re.compile(
    r'//[^\n]*|/\*.*?\*/|R"(?P<mark>[^()\s\\]*)\(.*?\)(?P=mark)"'
    r'|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Fa-f])\'(?:\\.|[^\'\\\n])+\'',
    re.S,
)
TOKEN = re.compile(r"[A-Za-z_]\w*|::|->|.", re.S)
IDENTIFIER = re.compile(r"[A-Za-z_]\w*\Z")
# A brace behind these and a "(...)" opens no function.
NO_FUNCTION = {"if", "for", "while", "switch", "catch", "return", "sizeof", "alignas", "decltype"}
TESTS = {"TEST", "TEST_F", "TEST_P", "TYPED_TEST", "TYPED_TEST_P"}
CLOSING = {"(": ")", "{": "}", "[": "]"}


def tokens_of(text):
    text = SILENT.sub(" 0 ", text)
    text = re.sub(r"^[ \t]*#.*(?:\\\n.*)*", "", text, flags=re.M)
    return [token for token in TOKEN.findall(text) if not token.isspace()]


def behind(tokens, at):
    """The position behind the bracket that opens at `at` and all that it holds."""
    opening, closing, depth = tokens[at], CLOSING[tokens[at]], 0
    while at < len(tokens):
        depth += (tokens[at] == opening) - (tokens[at] == closing)
        at += 1
        if depth == 0:
            return at
    return at


def body_start(tokens, at):
    """Where the body opens of a function whose parameters end before `at`; None: it has none."""
    while at < len(tokens):
        token = tokens[at]
        if token == "{":
            return at
        if token == ":":  # members and bases that a constructor starts with
            at += 1
            while at < len(tokens):
                while at < len(tokens) and tokens[at] not in "({;":
                    at += 1
                if at >= len(tokens) or tokens[at] == ";":
                    return None
                at = behind(tokens, at)
                if at < len(tokens) and tokens[at] == "{":
                    return at
                if at >= len(tokens) or tokens[at] != ",":
                    return None
            return None
        if token in ("noexcept", "alignas") and tokens[at + 1 : at + 2] == ["("]:
            at = behind(tokens, at + 1)
        elif IDENTIFIER.match(token) or token in ("->", "::", "<", ">", "*", "&"):
            at += 1
        else:
            return None
    return None


def parse(text):
    """The bodies of a file: the names in each test, {helper: names in it}."""
    tokens, tests, helpers, parameters = tokens_of(text), [], {}, {}
    at = 0
    while at + 1 < len(tokens):
        name = tokens[at]
        if name == "=" and tokens[at + 1] == "{":  # a table
            stop = behind(tokens, at + 1)
            owner = at - 1
            while owner > 0 and not IDENTIFIER.match(tokens[owner]):
                owner -= 1
            helpers.setdefault(tokens[owner], set()).update(filter(IDENTIFIER.match, tokens[at:stop]))
            at = stop
            continue
        if tokens[at + 1] != "(" or not IDENTIFIER.match(name) or name in NO_FUNCTION:
            at += 1
            continue
        end = behind(tokens, at + 1)
        if name == "INSTANTIATE_TEST_SUITE_P":
            suite = tokens[at + 4]
            parameters.setdefault(suite, set()).update(filter(IDENTIFIER.match, tokens[at:end]))
        start = body_start(tokens, end)
        if start is None:
            at += 1
            continue
        stop = behind(tokens, start)
        names = set(filter(IDENTIFIER.match, tokens[at + 2 : stop]))
        if name in TESTS:
            tests.append((tokens[at + 2], names))
        else:
            helpers.setdefault(name, set()).update(names)
        at = stop
    return [names | parameters.get(suite, set()) for suite, names in tests], helpers


def with_helpers(names, helpers):
    """`names` and whatever the helpers among them name in turn."""
    seen, todo = set(), list(names)
    while todo:
        name = todo.pop()
        if name not in seen:
            seen.add(name)
            todo.extend(helpers.get(name, ()))
    return seen


def header_helpers(root):
    """Macros and inline functions of the headers, and the names in each."""
    helpers = {}
    for path in sorted((root / "base/include").rglob("*.h")):
        text = path.read_text(encoding="utf-8")
        for name, body in re.findall(r"^#define (\w+)\(((?:.*\\\n)*.*)", text, flags=re.M):
            helpers.setdefault(name, set()).update(re.findall(r"[A-Za-z_]\w*", body))
        for name, names in parse(text)[1].items():
            helpers.setdefault(name, set()).update(names)
    return helpers


def exported(path):
    lines = pathlib.Path(path).read_text(encoding="utf-8").splitlines()
    return [line.strip() for line in lines if line.strip() and not line.startswith("#")]


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    root = pathlib.Path(sys.argv[1])
    shared = header_helpers(root)
    called = []  # of each test, the names that it reaches
    for path in sorted((root / "base/test").rglob("*.cpp")):
        tests, helpers = parse(path.read_text(encoding="utf-8"))
        for name, names in shared.items():
            helpers[name] = helpers.get(name, set()) | names
        called.extend(with_helpers(names, helpers) for names in tests)
    if not called:
        sys.exit(f"inventory: no tests below {root}/base/test")

    uncalled = []
    for exports in sys.argv[2:]:
        names = exported(exports)
        counts = {name: sum(name in reached for reached in called) for name in names}
        print(f"{exports}: {len(names)} names, the least called by {min(counts.values())} tests")
        for name in names:
            print(f"{counts[name]:6}  {name}")
        uncalled.extend(name for name in names if not counts[name])
    print(f"{len(called)} tests")
    if uncalled:
        sys.exit("inventory: no test calls " + ", ".join(uncalled))


if __name__ == "__main__":
    main()
