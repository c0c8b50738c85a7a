// index/companion.cpp
