// index/cursor_test.cpp
