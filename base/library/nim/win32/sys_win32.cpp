// sys_win32.cpp
