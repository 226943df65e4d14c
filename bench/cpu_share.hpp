// The CPU time of a benchmark split between the library and the virtual adapter, which run in the
// same process: the process's CPU time less the adapter model's own (sim::cpu_time_ns).
#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdint>

#include "corvel/sim.hpp"

namespace corvel::bench {

inline uint64_t process_cpu_ns() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000000000ULL + static_cast<uint64_t>(t.tv_nsec);
}

// Started before a timed loop; report() adds the counters lib_ns/op and sim_ns/op to its state.
class CpuShare {
  public:
    void report(benchmark::State& state) const {
        const double ops = static_cast<double>(state.iterations());
        const double cpu = static_cast<double>(process_cpu_ns() - cpu_start_);
        const double model = static_cast<double>(sim::cpu_time_ns() - sim_start_);
        state.counters["lib_ns/op"] = (cpu - model) / ops;
        state.counters["sim_ns/op"] = model / ops;
    }

  private:
    uint64_t cpu_start_ = process_cpu_ns();
    uint64_t sim_start_ = sim::cpu_time_ns();
};

}  // namespace corvel::bench
