// codes_test.cpp: the book goes on here.
