// index/cursor.cpp
