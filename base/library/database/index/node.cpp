// index/node.cpp
