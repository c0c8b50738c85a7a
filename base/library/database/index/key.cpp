// index/key.cpp
