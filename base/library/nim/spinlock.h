// spinlock.h: the lock of the process-wide services (pools, trace ring, tables).
//
// What it guards takes nanoseconds to a few microseconds, so waiting is trying again, and giving up
// the time slice after a while; no file is written and no code of a host runs while it is held
// (sinks have sinkturn.h). Needs no construction at run time and no thread library. Not recursive:
// nothing that is called while it is held may come back to the same lock.
#pragma once

#include <atomic>
#include <cstdint>

class SpinLock {
  public:
    constexpr SpinLock() = default;
    SpinLock(const SpinLock&) = delete;
    SpinLock& operator=(const SpinLock&) = delete;

    void Lock()
    {
        if (held_.exchange(1, std::memory_order_acquire) != 0) [[unlikely]]
            LockSlow();
    }
    void Unlock() { held_.store(0, std::memory_order_release); }

  private:
    void LockSlow(); // spinlock.cpp

    std::atomic<uint32_t> held_{0};
};

class SpinLockGuard {
  public:
    explicit SpinLockGuard(SpinLock& lock) : lock_(lock) { lock_.Lock(); }
    ~SpinLockGuard() { lock_.Unlock(); }
    SpinLockGuard(const SpinLockGuard&) = delete;
    SpinLockGuard& operator=(const SpinLockGuard&) = delete;

  private:
    SpinLock& lock_;
};
