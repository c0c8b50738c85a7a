// dirscan.cpp
