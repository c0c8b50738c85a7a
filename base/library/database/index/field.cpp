// index/field.cpp
