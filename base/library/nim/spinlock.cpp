// spinlock.cpp: waiting for a lock that another thread holds.
#include "spinlock.h"

#include "sys.h"

void SpinLock::LockSlow()
{
    // A holder is gone in a few nanoseconds, unless it lost its processor: then let it run.
    constexpr uint32_t TRIES = 200;
    for (;;) {
        for (uint32_t i = 0; i < TRIES; ++i) {
            if (held_.load(std::memory_order_relaxed) == 0 &&
                held_.exchange(1, std::memory_order_acquire) == 0)
                return;
        }
        SysYield();
    }
}
