// log_test.cpp
