// tracering.h: the recent trace, for the service that ends the process.
#pragma once

// Writes the lines of the ring to the standard error, oldest first. Takes no memory.
void TraceWriteRing();
