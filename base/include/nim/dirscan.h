#ifndef NIM_DIRSCAN_H
#define NIM_DIRSCAN_H
#include "nim/types.h"
#endif
