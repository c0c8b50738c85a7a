#!/usr/bin/env python3
"""Holds the judge of rooms to small houses in which something runs up, or nothing does."""

import pathlib
import unittest

import rooms

LIST = """
# Three floors.
nim:      nim/*
block:    database/block.h database/block/*
node:     database/index/node.*
cursor:   database/index/cursor.*   # behind a remark
record:   database/index/record.*
wrappers: database/wrappers.*
wrappers may include: database/block.h
umbrella: database/all.h
"""


def judged(**files):
    """The findings; `index_node_h` stands for database/index/node.h."""
    named = {}
    for name, text in files.items():
        folders, _, ending = name.rpartition("_")
        start = "" if folders.startswith("nim_") else "database/"
        named[f"{start}{folders.replace('_', '/')}.{ending}"] = text
    return rooms.Judge(rooms.House(LIST), named).findings


class IncludesTest(unittest.TestCase):
    def test_what_stands_lower_may_be_included_and_the_own_room(self):
        self.assertEqual(
            judged(
                nim_mem_h="",
                block_h="",
                block_chain_cpp='#include "database/block.h"\n#include "nim/mem.h"\n',
                index_cursor_cpp='#include <vector>\n#include "database/block.h"\n',
            ),
            [],
        )

    def test_what_stands_above_may_not(self):
        found = judged(index_cursor_h="", index_node_h='// node\n#include "database/index/cursor.h"\n')
        self.assertEqual(
            found,
            [
                "database/index/node.h:2: node includes database/index/cursor.h, of cursor,"
                " which stands above it"
            ],
        )

    def test_a_header_named_without_its_folder_is_found_beside_the_source(self):
        self.assertEqual(len(judged(index_cursor_h="", index_node_cpp='#include "cursor.h"\n')), 1)

    def test_the_base_services_know_nothing_of_the_library(self):
        self.assertEqual(len(judged(block_h="", nim_mem_cpp='#include "database/block.h"\n')), 1)

    def test_a_room_with_a_list_of_headers_keeps_to_it(self):
        found = judged(
            nim_mem_h="",
            block_h="",
            index_record_h="",
            wrappers_cpp='#include "database/block.h"\n#include "nim/mem.h"\n'
            '#include "database/index/record.h"\n',
        )
        self.assertEqual(
            found, ["database/wrappers.cpp:3: wrappers may not include database/index/record.h"]
        )

    def test_an_umbrella_is_not_for_rooms_and_may_include_what_it_likes(self):
        found = judged(
            index_record_h="",
            all_h='#include "database/index/record.h"\n',
            index_record_cpp='#include "database/all.h"\n',
        )
        self.assertEqual(
            found, ["database/index/record.cpp:1: includes the umbrella database/all.h"]
        )

    def test_every_file_has_a_room(self):
        self.assertEqual(judged(strange_cpp=""), ["database/strange.cpp: belongs to no room"])


class CallsTest(unittest.TestCase):
    def calls(self, lower, upper="void IndxMove(int n)\n{\n}\n"):
        return judged(index_node_cpp=lower, index_cursor_cpp=upper)

    def test_down_is_the_way(self):
        self.assertEqual(
            self.calls("int IndxNode()\n{\n}\n", "void IndxMove()\n{\n    IndxNode();\n}\n"), []
        )

    def test_up_is_not(self):
        self.assertEqual(
            self.calls("int IndxNode()\n{\n    return 1 +\n           IndxMove(2);\n}\n"),
            [
                "database/index/node.cpp:4: node calls IndxMove, of cursor, which stands above it"
            ],
        )

    def test_two_rooms_that_call_each_other_are_found(self):
        lower = "int IndxNode()\n{\n    IndxMove(1);\n}\n"
        upper = "void IndxMove(int n)\n{\n    IndxNode();\n}\n"
        self.assertEqual(len(self.calls(lower, upper)), 1)

    def test_a_function_handed_on_is_called(self):
        self.assertEqual(len(self.calls("int IndxNode()\n{\n    Each(&IndxMove);\n}\n")), 1)

    def test_a_head_on_two_lines_is_a_head(self):
        upper = "NimBool\nIndxMove(int n, const char* text = Text(1))\n{\n}\n"
        self.assertEqual(len(self.calls("int N()\n{\n    IndxMove(1);\n}\n", upper)), 1)

    def test_a_head_with_its_parameters_below_is_a_head(self):
        upper = "uint8_t* IndxMove(\n    int n, int m)\n{\n}\n"
        self.assertEqual(len(self.calls("int N()\n{\n    IndxMove(1, 2);\n}\n", upper)), 1)

    def test_comments_and_texts_call_nothing(self):
        lower = 'int N()\n{\n    // IndxMove(1)\n    /* IndxMove(1) */\n    Say("IndxMove(1)");\n}\n'
        self.assertEqual(self.calls(lower), [])

    def test_a_declaration_is_no_call(self):
        header = "void IndxMove(int n);\nNimBool IndxMove(\n    int n);\n"
        self.assertEqual(
            judged(index_node_h=header, index_cursor_cpp="void IndxMove(int n)\n{\n}\n"), []
        )

    def test_what_a_header_defines_belongs_to_its_room(self):
        found = judged(
            index_cursor_h="inline int CursorCount(const int* p)\n{\n}\n",
            index_node_cpp="int N()\n{\n    return CursorCount(p);\n}\n",
        )
        self.assertEqual(len(found), 1)

    def test_what_a_source_keeps_to_itself_is_no_business_of_others(self):
        upper = "static void Load(int n)\n{\n}\nnamespace {\nint Place(int n)\n{\n}\n} // namespace\n"
        self.assertEqual(self.calls("int N()\n{\n    Load(1);\n    Place(2);\n}\n", upper), [])

    def test_a_helper_of_the_same_name_is_the_own_one(self):
        lower = "namespace {\nvoid Move(int n)\n{\n}\n} // namespace\nint N()\n{\n    Move(1);\n}\n"
        self.assertEqual(self.calls(lower, "void Move(int n)\n{\n}\n"), [])

    def test_a_member_of_that_name_is_another_thing(self):
        self.assertEqual(self.calls("int N()\n{\n    x.IndxMove(1);\n    p->IndxMove(1);\n}\n"), [])

    def test_calls_within_a_room_go_both_ways(self):
        self.assertEqual(
            judged(
                block_cache_cpp="void BlckGet()\n{\n    BlckChain();\n}\n",
                block_chain_cpp="void BlckChain()\n{\n    BlckGet();\n}\n",
            ),
            [],
        )


class HouseTest(unittest.TestCase):
    def test_every_room_of_the_library_stands_once(self):
        root = pathlib.Path(__file__).resolve().parents[3]
        house = rooms.House((root / rooms.LIST).read_text())
        self.assertEqual(len(house.order), len(set(house.order)))
        self.assertEqual(set(house.only) - set(house.order), set())
        self.assertEqual([f for f in rooms.judge(root) if "no room" in f], [])


if __name__ == "__main__":
    unittest.main()
