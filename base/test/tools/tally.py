#!/usr/bin/env python3
"""Counts the tests of a run of ctest, one by one, although most of them run many to a program.

    tally.py NAME REPORT RESULTS STATUS

NAME is what the run is called; REPORT ctest's own report; RESULTS the folder where each program leaves
<name>.xml, and, while a test runs in it, <name>.running with its name; STATUS what ctest ended with.
Prints a sentence, what went wrong beyond single tests, and on the last line "PASSED FAILED".
"""

import pathlib
import sys
import xml.etree.ElementTree as xml

# They prepare for tests and tidy up behind them: none themselves, but they can fail.
NO_TESTS = {"wine_start", "wine_stop"}


class Tally:
    def __init__(self):
        self.tests = self.failed = self.skipped = 0
        self.remarks = []

    @property
    def passed(self):
        return self.tests - self.failed - self.skipped

    def add_program(self, name, result, report, running):
        """One whose tests stand in a report of its own."""
        root = xml.parse(report).getroot()
        failed = int(root.get("failures")) + int(root.get("errors"))
        self.tests += int(root.get("tests"))
        self.skipped += int(root.get("disabled"))
        self.skipped += sum(case.get("result") == "skipped" for case in root.iter("testcase"))
        self.failed += failed
        # What fails when the tests are over, as a report of lost memory does, is a failure, too.
        if result != "run" and failed == 0:
            self.add_failure(name, result, running)

    def add_failure(self, name, result, running):
        self.tests += 1
        self.failed += 1
        where = f", in {running.read_text().strip()}" if running.exists() else ""
        self.remarks.append(f"{name}: {result}{where}")

    def add_plain(self, name, result, running):
        """One of ctest's own: a command that works or fails."""
        if result == "run":
            self.tests += name not in NO_TESTS
        elif result == "disabled":
            self.tests += 1
            self.skipped += 1
        else:
            self.add_failure(name, result, running)


def tally(report, results, status):
    found = Tally()
    for case in xml.parse(report).getroot().iter("testcase"):
        name, result = case.get("name"), case.get("status")
        own, running = results / f"{name}.xml", results / f"{name}.running"
        if own.is_file() and own.stat().st_size:
            found.add_program(name, result, own, running)
        else:
            found.add_plain(name, result, running)
    # A test that could not even be started is no failure in the report, but the status knows.
    if status and not found.failed:
        found.add_failure("ctest", f"ended with {status}", results / "none")
    return found


def main(arguments):
    if len(arguments) != 4:
        sys.exit(__doc__)
    name, report, results, status = arguments
    found = tally(pathlib.Path(report), pathlib.Path(results), int(status))
    for remark in found.remarks:
        print(remark)
    print(f"{name}: {found.tests} tests, {found.failed} failed, {found.skipped} skipped")
    print(found.passed, found.failed)


if __name__ == "__main__":
    main(sys.argv[1:])
