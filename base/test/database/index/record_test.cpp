// index/record_test.cpp
