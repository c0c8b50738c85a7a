// filesys.cpp
