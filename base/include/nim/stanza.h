#ifndef NIM_STANZA_H
#define NIM_STANZA_H
#include "nim/types.h"
#endif
