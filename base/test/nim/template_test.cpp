// template_test.cpp
