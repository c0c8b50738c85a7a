// filesys_test.cpp
