// index/catalogue.cpp
