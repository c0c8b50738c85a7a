// index/insert_test.cpp
