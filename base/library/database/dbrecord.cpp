// dbrecord.cpp
