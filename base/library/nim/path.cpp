// path.cpp
