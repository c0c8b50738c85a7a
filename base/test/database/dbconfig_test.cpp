// dbconfig_test.cpp
