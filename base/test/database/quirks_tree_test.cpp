// quirks_tree_test.cpp: the book goes on here.
