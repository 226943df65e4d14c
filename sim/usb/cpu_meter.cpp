#include "cpu_meter.hpp"

#include <time.h>

#include <atomic>

#include "corvel/sim.hpp"

namespace corvel::sim {
namespace {

std::atomic<uint64_t> total_ns{0};
thread_local int depth = 0;

uint64_t thread_ns() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000u + static_cast<uint64_t>(t.tv_nsec);
}

}  // namespace

CpuMeter::CpuMeter() : outermost_(depth++ == 0) {
    if (outermost_) start_ = thread_ns();
}

CpuMeter::~CpuMeter() {
    --depth;
    if (outermost_) total_ns.fetch_add(thread_ns() - start_, std::memory_order_relaxed);
}

uint64_t cpu_time_ns() {
    return total_ns.load(std::memory_order_relaxed);
}

}  // namespace corvel::sim
