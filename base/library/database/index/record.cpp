// index/record.cpp
