// headers_test.cpp
