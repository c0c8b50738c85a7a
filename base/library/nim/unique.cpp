// unique.cpp
