// index/node_test.cpp
