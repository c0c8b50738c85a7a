// list_test.cpp
