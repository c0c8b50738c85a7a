// quirks_tables_test.cpp: the book goes on here.
