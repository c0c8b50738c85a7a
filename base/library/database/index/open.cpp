// index/open.cpp
