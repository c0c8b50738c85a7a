// templates.cpp
