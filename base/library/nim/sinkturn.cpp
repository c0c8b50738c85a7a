// sinkturn.cpp: the turn itself.
#include "sinkturn.h"

#include <cstdint>
#include <mutex>

static std::mutex gSinkMutex;                // waiters sleep: a sink may take as long as it likes
static thread_local uint32_t gSinkTurns = 0; // of this thread, one inside the other

SinkTurn::SinkTurn()
{
    if (gSinkTurns++ == 0)
        gSinkMutex.lock();
}

SinkTurn::~SinkTurn()
{
    if (--gSinkTurns == 0)
        gSinkMutex.unlock();
}
