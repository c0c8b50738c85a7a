// format_test.cpp
