// quirks_table_opening_test.cpp: the book goes on here.
