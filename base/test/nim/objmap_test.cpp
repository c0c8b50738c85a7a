// objmap_test.cpp
