// memdirect.h: pieces that pass straight through to the heap, for sanitizers and valgrind.
#pragma once

#include <cstdint>

// A piece of `size` bytes without a prefix, its address the heap's own; null when there is none.
void* MemDirectAllocate(uint32_t size, bool clear);
// Frees a piece. *size is what was asked for. False when `body` is no live piece; it is left alone.
bool MemDirectFree(void* body, uint32_t* size);
// Gives the table of pieces back when there are none.
void MemDirectTrim();
