// fault.cpp
