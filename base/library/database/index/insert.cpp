// index/insert.cpp
