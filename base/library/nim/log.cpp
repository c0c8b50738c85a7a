// log.cpp
