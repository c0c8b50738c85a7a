// block.cpp
