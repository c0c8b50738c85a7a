// path_test.cpp
