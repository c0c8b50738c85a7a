// value_test.cpp
