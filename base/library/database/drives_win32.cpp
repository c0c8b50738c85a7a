// drives_win32.cpp
