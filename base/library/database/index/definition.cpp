// index/definition.cpp
