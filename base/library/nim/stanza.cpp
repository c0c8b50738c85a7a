// stanza.cpp
