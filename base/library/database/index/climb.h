// climb.h
