// quirks_modification_test.cpp: the book goes on here.
