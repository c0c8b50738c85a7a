// instance.cpp
