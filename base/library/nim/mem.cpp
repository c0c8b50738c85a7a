// mem.cpp
