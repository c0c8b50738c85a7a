// str.cpp
