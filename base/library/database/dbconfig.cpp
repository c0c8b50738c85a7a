// dbconfig.cpp
