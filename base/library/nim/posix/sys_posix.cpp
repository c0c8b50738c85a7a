// sys_posix.cpp
