// serial_test.cpp
