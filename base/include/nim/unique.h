#ifndef NIM_UNIQUE_H
#define NIM_UNIQUE_H
#include "nim/types.h"
#endif
