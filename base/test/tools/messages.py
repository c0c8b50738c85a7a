#!/usr/bin/env python3
"""Prints for every message of the database library how many lines of the message book drive it;
fails when one has none, and when the book drives one that the library does not have.

A message is the format text of a trace line or of an entry of the product log in
base/library/database. The book is base/test/database/messages_*_test.cpp: a line of it begins with
the format text.

    messages.py ROOT    ROOT: the checkout
"""

import pathlib
import re
import sys

TEXT = r'"(?:\\.|[^"\\\n])*"'
TEXTS = rf"{TEXT}(?:\s*{TEXT})*"  # adjacent literals are one
# What a call may have ahead of its format: levels, flags, numbers, names; no text.
AHEAD = r'[^";{}]*?'
CALL = re.compile(rf"\b(\w*(?:TRACE|TRACE_ERROR|TRACE_LINE)|LogMessage\w*)\(({AHEAD})({TEXTS})")
# A line of the trace: format, its values, error flag, level. An entry of the log: number, class,
# format.
VALUES = r"(?:With\((?:[^()]|\([^()]*\))*\),\s+)?"
LINE = re.compile(
    rf"\{{(?:({TEXTS}),\s+{VALUES}(?:\d|S::\w+),\s+-?\d,|\d{{4}}, \d+,\s+({TEXTS}|\w+),)"
)
NAMED = re.compile(rf"const char\* (\w+) = ({TEXTS});")


def joined(literals):
    return "".join(part[1:-1] for part in re.findall(TEXT, literals))


def without_comments(text):
    return re.sub(r"//[^\n]*", "", text)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    root = pathlib.Path(sys.argv[1])
    messages = {}  # text: where it stands
    for path in sorted((root / "base/library/database").rglob("*.cpp")):
        text = re.sub(r"^#define.*(?:\\\n.*)*", "", path.read_text(encoding="utf-8"), flags=re.M)
        for call in CALL.finditer(without_comments(text)):
            messages.setdefault(joined(call.group(3)), set()).add(path.name)
    book = {}
    for path in sorted((root / "base/test/database").glob("messages_*_test.cpp")):
        text = path.read_text(encoding="utf-8")
        named = {name: joined(literals) for name, literals in NAMED.findall(text)}
        for line in LINE.finditer(text):
            format_text = line.group(1) or line.group(2)
            format_text = named[format_text] if format_text in named else joined(format_text)
            book[format_text] = book.get(format_text, 0) + 1
    if not messages or not book:
        sys.exit(f"messages: nothing found below {root}/base")
    for text in sorted(messages):
        print(f"{book.get(text, 0):6}  {text}  ({', '.join(sorted(messages[text]))})")
    print(f"{len(messages)} messages, {sum(book.values())} lines of the book")
    undriven = sorted(text for text in messages if text not in book)
    if undriven:
        sys.exit("messages: the book does not drive\n  " + "\n  ".join(undriven))
    unknown = sorted(text for text in book if text not in messages)
    if unknown:
        sys.exit("messages: the library does not have\n  " + "\n  ".join(unknown))


if __name__ == "__main__":
    main()
