#ifndef NIM_PATH_H
#define NIM_PATH_H
#include "nim/types.h"
#endif
