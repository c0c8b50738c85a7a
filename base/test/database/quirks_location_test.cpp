// quirks_location_test.cpp: the book goes on here.
