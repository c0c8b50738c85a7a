// index/search_test.cpp
