#ifndef NIM_MEM_H
#define NIM_MEM_H
#include "nim/types.h"
#endif
