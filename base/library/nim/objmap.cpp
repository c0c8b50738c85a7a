// objmap.cpp
