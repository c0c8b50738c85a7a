// index/delete_test.cpp
