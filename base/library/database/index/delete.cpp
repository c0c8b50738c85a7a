// index/delete.cpp
