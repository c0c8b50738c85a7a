// drives_posix.cpp
