#!/usr/bin/env python3
"""Holds the count of tests to reports written by hand."""

import pathlib
import tempfile
import unittest

import tally

OWN = (
    '<testsuites tests="{tests}" failures="{failures}" disabled="{disabled}" errors="0" name="All">'
    '<testsuite name="Suite">{cases}</testsuite></testsuites>'
)


class TallyTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.results = pathlib.Path(folder.name)

    def own(self, name, tests, failures=0, disabled=0, skipped=0):
        cases = '<testcase name="x" result="skipped"/>' * skipped
        text = OWN.format(tests=tests, failures=failures, disabled=disabled, cases=cases)
        (self.results / f"{name}.xml").write_text(text)

    def count(self, status, **results):
        """(passed, failed, skipped) of tests of ctest's with such results."""
        report = self.results / "report"
        cases = "".join(f'<testcase name="{n}" status="{r}"/>' for n, r in results.items())
        report.write_text(f"<testsuite>{cases}</testsuite>")
        self.found = tally.tally(report, self.results, status)
        return self.found.passed, self.found.failed, self.found.skipped

    def test_commands_count_one_and_programs_what_stands_in_their_reports(self):
        self.own("program_1", 10)
        self.own("program_2", 7)
        self.assertEqual(self.count(0, program_1="run", program_2="run", api="run"), (18, 0, 0))

    def test_failed_tests_are_told_one_by_one(self):
        self.own("program", 10, failures=3)
        self.assertEqual(self.count(8, program="fail", api="fail"), (7, 4, 0))
        self.assertEqual(self.found.remarks, ["api: fail"])

    def test_skipped_and_disabled_tests_neither_pass_nor_fail(self):
        self.own("program", 10, disabled=2, skipped=3)
        self.assertEqual(self.count(0, program="run", off="disabled"), (5, 0, 6))

    def test_a_program_that_died_failed_in_the_test_that_ran(self):
        (self.results / "program.running").write_text("Suite.Name\n")
        self.assertEqual(self.count(8, program="fail"), (0, 1, 0))
        self.assertEqual(self.found.remarks, ["program: fail, in Suite.Name"])

    def test_an_empty_report_is_none(self):
        (self.results / "program.xml").write_text("")
        self.assertEqual(self.count(8, program="fail"), (0, 1, 0))

    def test_a_program_that_fails_behind_its_tests_failed(self):
        self.own("program", 10)
        self.assertEqual(self.count(8, program="fail"), (10, 1, 0))

    def test_a_test_that_did_not_run_failed(self):
        self.assertEqual(self.count(8, api="notrun"), (0, 1, 0))

    def test_a_status_without_a_failure_is_a_failure(self):
        self.assertEqual(self.count(8, api="run"), (1, 1, 0))

    def test_what_prepares_is_no_test_but_can_fail(self):
        self.assertEqual(self.count(0, wine_start="run", api="run", wine_stop="run"), (1, 0, 0))
        self.assertEqual(self.count(8, wine_start="fail", api="run", wine_stop="run"), (1, 1, 0))


if __name__ == "__main__":
    unittest.main()
