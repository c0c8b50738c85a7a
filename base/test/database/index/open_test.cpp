// index/open_test.cpp
