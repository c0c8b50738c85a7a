// quirks_block_test.cpp: the book goes on here.
