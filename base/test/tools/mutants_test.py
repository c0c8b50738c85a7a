#!/usr/bin/env python3
"""Holds the planting of faults to small sources."""

import unittest

import schemata

SOURCE = """\
// Reach(a <= b) in a comment.
static bool Reach(int a, int b)
{
    if (a <= b && Check(a))
        return true;
    Release(a);
    return a + 1 == b;
}

class Store {
    bool Reach2(int a) const { return a < 7; }
};

void Other()
{
    if (a <= b)
        Reach(1, 2);
}
"""


def mutant(old, new, function="Reach", number=1):
    return schemata.Mutant(f"m{number}", "x.cpp", function, "kind", old, new, number=number)


class ListTest(unittest.TestCase):
    TEXT = """# A remark.

id: one
file: a/b.cpp
function: F
kind: a comparison turned
old: a <=
  b
new: a < b

id: two
file: a/b.cpp
function: F
kind: a call left out
old: G(a);
new:
equivalent: it is done
  again later
"""

    def test_a_list_is_read(self):
        one, two = schemata.parse_list(self.TEXT)
        self.assertEqual((one.old, one.new, one.number, one.equivalent), ("a <= b", "a < b", 1, ""))
        self.assertEqual((two.new, two.number), ("", 2))
        self.assertEqual(two.equivalent, "it is done again later")

    def test_what_is_written_is_read_again(self):
        mutants = schemata.parse_list(self.TEXT)
        self.assertEqual(schemata.parse_list("\n".join(m.text() for m in mutants)), mutants)

    def test_a_name_twice_and_a_missing_part_are_refused(self):
        other_build = self.TEXT + "build: release\n"
        for text in (self.TEXT + "\n" + self.TEXT, "id: x\nfile: y\n", "what: is this\n", other_build):
            with self.assertRaises(schemata.Wrong):
                schemata.parse_list(text)


class PlaceTest(unittest.TestCase):
    def found(self, old, function="Reach"):
        start, end = schemata.place(SOURCE, mutant(old, "", function))
        return SOURCE[start:end]

    def test_a_fragment_is_found_in_its_function(self):
        self.assertEqual(self.found("a <= b"), "a <= b")
        self.assertEqual(self.found("a <= b", "Other"), "a <= b")
        self.assertEqual(self.found("a < 7", "Reach2"), "a < 7")

    def test_the_width_of_spaces_does_not_matter(self):
        self.assertEqual(self.found("return true; Release(a);"), "return true;\n    Release(a);")

    def test_a_fragment_that_is_not_there_or_twice_is_refused(self):
        for old, function in (("a < b", "Reach"), ("a", "Reach"), ("a <= b", "None")):
            with self.assertRaises(schemata.Wrong):
                self.found(old, function)

    def test_a_name_is_no_part_of_a_longer_one(self):
        with self.assertRaises(schemata.Wrong):
            self.found("elease(a);")


class WeaveTest(unittest.TestCase):
    def test_an_expression_is_chosen_and_a_statement_runs_or_not(self):
        text = schemata.woven(
            SOURCE, [mutant("a <= b", "a < b", number=1), mutant("Release(a);", "", number=2)]
        )
        self.assertIn("if ((MutantOn(1) ? (a < b) : (a <= b)) && Check(a))", text)
        self.assertIn("{ if (MutantOn(2)) {  } else { Release(a); } }", text)
        self.assertIn("if (a <= b)\n        Reach(1, 2);", text)  # elsewhere nothing changes

    def test_faults_of_one_place_stand_in_each_other(self):
        text = schemata.woven(
            SOURCE,
            [
                mutant("a <= b && Check(a)", "a <= b", number=1),
                mutant("a <= b", "a < b", number=2),
                mutant("a <= b && Check(a)", "Check(a)", number=3),
            ],
        )
        self.assertIn(
            "if ((MutantOn(1) ? (a <= b) : ((MutantOn(3) ? (Check(a)) :"
            " ((MutantOn(2) ? (a < b) : (a <= b)) && Check(a))))))",
            text,
        )

    def test_faults_that_overlap_are_refused(self):
        with self.assertRaises(schemata.Wrong):
            schemata.woven(
                SOURCE, [mutant("a <= b && Check(a)", "", number=1), mutant("(a <= b", "", number=2)]
            )


class ProposeTest(unittest.TestCase):
    def test_comparisons_conditions_numbers_and_calls_are_proposed(self):
        found = [(m.function, m.old, m.new) for m in schemata.propose("a/x.cpp", SOURCE)]
        self.assertIn(("Reach", "a <= b && Check(a)", "a < b && Check(a)"), found)
        self.assertIn(("Reach", "a <= b && Check(a)", "a <= b || Check(a)"), found)
        self.assertIn(("Reach", "a <= b && Check(a)", "bool(Check(a))"), found)
        self.assertIn(("Reach", "a + 1 == b", "a == b"), found)
        self.assertIn(("Reach", "Release(a);", ""), found)
        self.assertIn(("Reach2", "a < 7", "a <= 7"), found)

    def test_each_has_a_name_of_its_own(self):
        found = schemata.propose("a/x.cpp", SOURCE)
        self.assertEqual(found[0].id, "x-01")
        self.assertEqual(len({m.id for m in found}), len(found))

    def test_all_of_them_can_be_woven_at_once(self):
        found = schemata.propose("a/x.cpp", SOURCE)
        for number, proposal in enumerate(found, 1):
            proposal.number = number
        text = schemata.woven(SOURCE, found)
        self.assertEqual(text.count("MutantOn("), len(found))


if __name__ == "__main__":
    unittest.main()
