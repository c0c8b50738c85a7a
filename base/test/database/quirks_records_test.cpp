// quirks_records_test.cpp: the book goes on here.
