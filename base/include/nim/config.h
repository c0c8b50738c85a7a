#ifndef NIM_CONFIG_H
#define NIM_CONFIG_H
#include "nim/types.h"
#endif
