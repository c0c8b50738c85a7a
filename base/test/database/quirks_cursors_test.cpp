// quirks_cursors_test.cpp: the book goes on here.
