// serial.cpp
