#ifndef NIM_LOG_H
#define NIM_LOG_H
#include "nim/types.h"
#endif
