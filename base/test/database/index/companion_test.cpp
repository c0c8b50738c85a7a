// index/companion_test.cpp
