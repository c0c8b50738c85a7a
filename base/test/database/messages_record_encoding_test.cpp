// messages_record_encoding_test.cpp: the book goes on here.
