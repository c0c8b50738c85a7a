#ifndef NIM_OBJMAP_H
#define NIM_OBJMAP_H
#include "nim/types.h"
#endif
