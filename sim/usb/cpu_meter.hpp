// The processor time the drop-in spends on the calling threads (corvel::sim::cpu_time_ns): every
// libusb entry point and every virtual sleep is measured with the thread's CPU clock at entry and
// exit, and the differences are summed. A call made from inside a measured one (a scheduled event
// that calls back in) is not counted twice.
#pragma once

#include <cstdint>

namespace corvel::sim {

class CpuMeter {
  public:
    CpuMeter();
    ~CpuMeter();
    CpuMeter(const CpuMeter&) = delete;
    CpuMeter& operator=(const CpuMeter&) = delete;

  private:
    uint64_t start_ = 0;
    bool outermost_;
};

}  // namespace corvel::sim
