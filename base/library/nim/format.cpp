// format.cpp
