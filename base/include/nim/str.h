#ifndef NIM_STR_H
#define NIM_STR_H
#include "nim/types.h"
#endif
