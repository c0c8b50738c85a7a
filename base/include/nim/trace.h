#ifndef NIM_TRACE_H
#define NIM_TRACE_H
#include "nim/types.h"
#endif
