// proc_test.cpp
