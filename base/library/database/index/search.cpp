// index/search.cpp
