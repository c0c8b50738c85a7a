// instance_test.cpp
