// list.cpp
