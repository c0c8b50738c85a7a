// mem_test.cpp
