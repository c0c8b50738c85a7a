#ifndef NIM_LIST_H
#define NIM_LIST_H
#include "nim/types.h"
#endif
