// trace_test.cpp
