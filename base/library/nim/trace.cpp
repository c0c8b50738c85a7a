// trace.cpp
