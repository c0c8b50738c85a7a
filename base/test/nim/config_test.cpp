// config_test.cpp
