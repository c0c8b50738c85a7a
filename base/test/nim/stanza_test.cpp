// stanza_test.cpp
