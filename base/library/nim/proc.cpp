// proc.cpp
