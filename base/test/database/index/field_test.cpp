// index/field_test.cpp
