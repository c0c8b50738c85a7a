// index/catalogue_test.cpp
