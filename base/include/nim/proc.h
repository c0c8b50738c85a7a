#ifndef NIM_PROC_H
#define NIM_PROC_H
#include "nim/types.h"
#endif
