#!/usr/bin/env python3
"""Holds what the benchmark computes to numbers worked out by hand."""

import unittest

import figures
import report


def peer_line(engine, phase, value, records=1000):
    return f"{engine}\tdata/{engine}\t{records}\t{phase}\t10\t0.1\t0.1\t{value}\n"


def samples_of(*values):
    """(engine, phase, value) at 1,000 records."""
    samples = figures.Samples()
    for engine, phase, value in values:
        samples.add(engine, 1000, phase, value)
    return samples


def goal(goals, text, work):
    found = [r for r in goals.results if r["work"] == work and text in r["goal"]]
    assert len(found) == 1, found
    return found[0]


class SamplesTest(unittest.TestCase):
    def test_the_median_of_rounds_is_the_middle_one(self):
        samples = figures.Samples()
        for value in ("9.000", "1.000", "2.000"):
            samples.add_peer_lines(peer_line("nimdb", "insert", value))
        self.assertEqual(samples.median("nimdb", 1000, "insert"), 2)
        self.assertIsNone(samples.median("nimdb", 2000, "insert"))
        [entry] = samples.summary()
        self.assertEqual(
            (entry["min"], entry["median"], entry["max"], entry["rounds"]), (1, 2, 9, 3)
        )

    def test_an_even_number_of_rounds_has_its_median_between_two(self):
        samples = samples_of(("lmdb", "modify", 4), ("lmdb", "modify", 6))
        self.assertEqual(samples.median("lmdb", 1000, "modify"), 5)

    def test_a_phase_that_was_cut_keeps_its_name_and_is_marked(self):
        samples = figures.Samples()
        samples.add_peer_lines(peer_line("kc-auto", "insert!cut", "80.0"))
        self.assertEqual(samples.median("kc-auto", 1000, "insert"), 80)
        self.assertTrue(samples.summary()[0]["cut"])

    def test_a_phase_whose_time_was_up_before_it_began_was_not_measured(self):
        samples = figures.Samples()
        samples.add_peer_lines("tc-txn\tdata\t1000\tmodify!cut\t0\t0.0\t0.0\t0.000\n")
        self.assertIsNone(samples.median("tc-txn", 1000, "modify"))

    def test_the_floor_is_no_engine(self):
        samples = samples_of(("sqlite-wal", "insert", 4), ("nimdb", "insert", 4))
        samples.add_floor_lines("data\t1000\tinsert: b  memcpy from map + pwrite\t10.5\n")
        self.assertEqual(samples.engines(1000), ["nimdb", "sqlite-wal"])
        self.assertEqual(
            samples.median("floor", 1000, "insert: b  memcpy from map + pwrite"), 10.5
        )


class ComparisonTest(unittest.TestCase):
    def setUp(self):
        self.samples = samples_of(
            ("nimdb", "insert", 6.0),
            ("nimdb-unmapped", "insert", 1.0),  # of this library: no peer
            ("sqlite-wal", "insert", 12.0),
            ("sqlite-off-x", "insert", 8.0),
            ("lmdb", "insert", 5.0),
            ("lmdb-wm", "insert", 4.0),
            ("bdb", "insert", 2.0),  # loses finished operations: wins nothing
            ("floor", "insert: b  memcpy from map + pwrite", 5.0),
            ("floor", "insert: b' pointer into map + pwrite", 4.0),
        )
        surviving = {"nimdb", "nimdb-unmapped", "sqlite-wal", "sqlite-off-x", "lmdb", "lmdb-wm"}
        self.comparison = figures.Comparison(self.samples, 1000, surviving)

    def test_the_fastest_peer_is_one_that_survives_and_none_of_ours(self):
        row = self.comparison.row("nimdb", "insert")
        self.assertEqual((row["peer"], row["peer_ratio"]), ("lmdb-wm", 1.5))
        self.assertEqual((row["sqlite"], row["sqlite_ratio"]), ("sqlite-off-x", 0.75))
        self.assertEqual((row["floor"], row["floor_ratio"]), (4.0, 1.5))

    def test_a_phase_that_was_cut_wins_nothing(self):
        self.samples.add("lmdb-wm", 1000, "insert!cut", 4.0)
        self.assertEqual(self.comparison.fastest_peer("insert"), ("lmdb", 5.0))

    def test_what_was_not_measured_has_no_ratio(self):
        row = self.comparison.row("nimdb", "delete")
        self.assertIsNone(row["time"])
        self.assertIsNone(row["peer_ratio"])
        self.assertIsNone(row["floor_ratio"])

    def test_finds_are_compared_with_one_that_loses_operations_as_well(self):
        self.samples.add("nimdb", 1000, "find_name", 2.0)
        self.samples.add("bdb", 1000, "find_name", 3.0)
        goals = figures.Goals(self.comparison, 250)
        found = goal(goals, "Berkeley DB", "find by name")
        self.assertTrue(found["met"])
        self.assertAlmostEqual(found["ratio"], 2 / 3)
        self.samples.add("bdb-txn", 1000, "find_name", 2.5)
        self.samples.add("memory", 1000, "find_name", 0.1)  # no database
        self.assertEqual(self.comparison.fastest_peer("find_name"), ("bdb-txn", 2.5))
        found = goal(figures.Goals(self.comparison, 250), "Berkeley DB", "find by name")
        self.assertAlmostEqual(found["ratio"], 2 / 2.5)

    def test_goals_are_met_missed_or_not_measured(self):
        goals = figures.Goals(self.comparison, 250)
        sqlite = goal(goals, "SQLite in every mode", "insert")
        self.assertEqual((sqlite["ratio"], sqlite["met"]), (0.75, True))
        self.assertIn("sqlite-off-x", sqlite["goal"])
        lmdb = goal(goals, "LMDB without write map", "insert")
        self.assertEqual((lmdb["ratio"], lmdb["met"]), (1.2, False))
        copied = goal(goals, figures.COPIED, "insert")
        self.assertEqual((copied["ratio"], copied["met"]), (1.2, True))  # "at most"
        self.assertFalse(goal(goals, figures.IN_PLACE, "insert")["met"])
        self.assertIsNone(goal(goals, "LevelDB", "find by name")["met"])
        self.assertEqual(goal(goals, "ten tables", "open")["ratio"], 0.25)
        self.assertIn("NOT MET", report.goals_text(goals, 1000))

    def test_as_fast_as_is_not_faster(self):
        self.samples.add("lmdb", 1000, "delete", 3.0)
        self.samples.add("nimdb", 1000, "delete", 3.0)
        goals = figures.Goals(self.comparison)
        self.assertFalse(goal(goals, "LMDB without write map", "delete")["met"])

    def test_the_table_marks_who_loses_operations(self):
        self.assertIn("bdb (loses)", report.comparison_text(self.comparison))


class ChangesTest(unittest.TestCase):
    """This library beside another state of it."""

    def setUp(self):
        self.samples = samples_of(
            ("nimdb", "insert", 6.0),
            ("nimdb", "insert", 2.0),
            ("nimdb", "insert", 3.0),
            ("nimdb", "delete", 3.0),
            ("before:nimdb", "insert", 2.0),
            ("before:nimdb", "insert", 2.5),
            ("before:nimdb", "insert", 1.0),
            ("lmdb", "insert", 4.0),
        )

    def test_what_both_measured_is_compared_by_medians_and_by_the_best_rounds(self):
        rows = figures.change_rows(self.samples, 1000)
        self.assertEqual(rows, [("nimdb", "insert", 2.0, 3.0, 1.5, 2.0)])
        self.assertIn("nimdb: insert", report.changes_text(rows, 1000))

    def test_without_another_state_there_is_nothing_to_say(self):
        self.assertEqual(figures.change_rows(samples_of(("nimdb", "insert", 6.0)), 1000), [])
        self.assertEqual(report.changes_text([], 1000), "")

    def test_another_state_is_no_peer(self):
        comparison = figures.Comparison(self.samples, 1000, {"nimdb", "before:nimdb", "lmdb"})
        self.assertEqual(comparison.fastest_peer("insert"), ("lmdb", 4.0))

    def test_its_lines_come_under_the_name_that_it_has_here(self):
        line = peer_line("nimdb", "insert", 2.0)
        self.assertEqual(
            figures.renamed(line + line, figures.before("nimdb")),
            2 * ("before:" + line),
        )
        self.assertEqual(figures.without_before("before:nimdb"), "nimdb")


class GrowthTest(unittest.TestCase):
    def test_cost_levels_and_bare_cost_grow_from_the_smallest_size(self):
        samples = figures.Samples()
        bare = figures.FLOOR_OF_WAY[figures.IN_PLACE]["find_name"]
        for records, time, levels, floor in ((1000, 2.0, 2, 1.0), (9000, 5.0, 3, 4.0)):
            samples.add("nimdb", records, "find_name", time)
            samples.add("nimdb", records, "levels_Name", levels)
            samples.add("floor", records, bare, floor)
        row = figures.growth_row(samples, "find_name", 1000, 9000)
        self.assertEqual(
            (row["factor"], row["levels_factor"], row["bare_factor"]), (2.5, 1.5, 4.0)
        )

    def test_work_in_all_trees_goes_by_the_mean_of_their_levels(self):
        samples = samples_of(*(("nimdb", "levels_" + tree, 2) for tree in figures.TREES))
        for tree, levels in zip(figures.TREES, (2, 3, 2, 3)):
            samples.add("nimdb", 9000, "levels_" + tree, levels)
        row = figures.growth_row(samples, "insert", 1000, 9000)
        self.assertEqual((row["levels"], row["levels_factor"]), (2.5, 1.25))
        self.assertEqual(figures.growth_row(samples, "walk_name", 1000, 9000)["levels_factor"], 1)


class InstructionsTest(unittest.TestCase):
    def test_a_dump_gives_name_and_count_an_operation(self):
        dump = "version: 1\ndesc: Trigger: Client Request: find by name 200\n\ntotals: 5100\n"
        self.assertEqual(figures.counts_in_dump(dump), ("find by name", 25.5))
        self.assertIsNone(figures.counts_in_dump("desc: Trigger: Program termination\ntotals: 0\n"))

    def test_a_baseline_comes_back_as_it_was_written(self):
        counts = {"add": 100.0, "walk step": 2.5}
        text = figures.format_baseline(counts, ["how", "with what"])
        self.assertEqual(figures.parse_baseline(text), (counts, ["how", "with what"]))

    def test_more_than_three_in_a_hundred_is_a_finding_and_less_is_none(self):
        baseline = {"add": 1000.0, "modify": 1000.0, "delete": 1000.0}
        rows = figures.compare_counts(baseline, {"add": 1029.0, "modify": 1031.0, "delete": 500.0})
        self.assertEqual([row[4] for row in rows], [False, True, False])
        text = report.counts_text(rows)
        self.assertEqual((text.count("GREW"), text.count("fell")), (1, 1))

    def test_work_that_only_one_side_counted_is_a_finding(self):
        rows = figures.compare_counts({"add": 1.0}, {"modify": 1.0})
        self.assertEqual([(row[0], row[4]) for row in rows], [("add", True), ("modify", True)])
        text = report.counts_text(rows)
        self.assertIn("NOT COUNTED", text)
        self.assertIn("NOT IN THE BASELINE", text)

    def test_runs_are_held_to_each_other_by_their_largest_difference(self):
        one, other = {"add": 1000.0, "delete": 100.0}, {"add": 1001.0, "delete": 99.0}
        self.assertAlmostEqual(figures.largest_difference(one, other), 0.01)
        with self.assertRaises(ValueError):
            figures.largest_difference(one, {"add": 1000.0})


if __name__ == "__main__":
    unittest.main()
