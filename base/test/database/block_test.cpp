// block_test.cpp
