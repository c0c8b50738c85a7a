// armed_fault.h: one fault, armed as long as it lives. Its end disarms every rule, so that a test
// that stops half-way leaves none behind.
#pragma once

#include <cstdint>

#include "nim/fault.h"

class ArmedFault {
  public:
    explicit ArmedFault(
        uint32_t point, uint32_t nth = 1, uint32_t times = 1, uint32_t mode = FAULT_FAIL,
        uint32_t count = 0)
    {
        const FaultRule rule = {point, nullptr, nth, times, mode, count};
        id_ = FaultArm(&rule);
    }
    ~ArmedFault() { FaultDisarmAll(); }
    ArmedFault(const ArmedFault&) = delete;
    ArmedFault& operator=(const ArmedFault&) = delete;

    uint32_t hits() const { return FaultHits(id_); }

  private:
    uint32_t id_;
};
