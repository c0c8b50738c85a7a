// fault_test.cpp
