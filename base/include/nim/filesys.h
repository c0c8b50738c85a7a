#ifndef NIM_FILESYS_H
#define NIM_FILESYS_H
#include "nim/types.h"
#endif
