// mempool.h: what only the pools' own tests ask.
#pragma once

#include <cstdint>

// Body bytes of the freed pieces that wait for their next use.
uint64_t MemWaitingBytes();
