// str_test.cpp
