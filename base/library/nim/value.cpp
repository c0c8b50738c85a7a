// value.cpp
