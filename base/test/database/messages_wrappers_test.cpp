// messages_wrappers_test.cpp: the book goes on here.
