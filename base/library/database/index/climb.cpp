// climb.cpp
