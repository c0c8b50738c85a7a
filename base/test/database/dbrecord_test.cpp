// dbrecord_test.cpp
