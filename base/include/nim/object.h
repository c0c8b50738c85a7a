#ifndef NIM_OBJECT_H
#define NIM_OBJECT_H
#include "nim/types.h"
#endif
