// template.cpp
