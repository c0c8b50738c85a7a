#!/usr/bin/env python3
"""Fails when a test that base/test/QUIRKS.md names is not in the sources, or a line of it names none.

    quirks.py ROOT    ROOT: the checkout
"""

import pathlib
import re
import sys

TEST = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)", flags=re.M)
LINE = re.compile(r"^\| (.+) \| ([^|]+) \|$", flags=re.M)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    tests = pathlib.Path(sys.argv[1]) / "base/test"
    known = set()
    for path in tests.rglob("*.cpp"):
        known.update(".".join(test) for test in TEST.findall(path.read_text(encoding="utf-8")))
    quirks = LINE.findall((tests / "QUIRKS.md").read_text(encoding="utf-8"))
    quirks = [quirk for quirk in quirks if quirk != ("Behaviour", "Test")]
    if not known or not quirks:
        sys.exit(f"quirks: nothing found below {tests}")
    missing = [
        f"{test}: {behaviour}"
        for behaviour, names in quirks
        for test in names.split(", ")
        if test not in known
    ]
    print(f"{len(quirks)} quirks, {len(known)} tests")
    if missing:
        sys.exit("quirks: there is no test\n  " + "\n  ".join(missing))


if __name__ == "__main__":
    main()
