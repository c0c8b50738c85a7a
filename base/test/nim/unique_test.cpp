// unique_test.cpp
