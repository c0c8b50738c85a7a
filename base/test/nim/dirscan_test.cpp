// dirscan_test.cpp
