// index/definition_test.cpp
