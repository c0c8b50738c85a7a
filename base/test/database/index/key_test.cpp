// index/key_test.cpp
