// The simulated CAN nodes: the traffic generator's frames and the echo node's answer.
//
// The generator is a pure function of the frame's number, so the engine can generate lazily (the
// frames that fell due since it last looked, each at its own time) and skip a long stretch at no
// cost.
#pragma once

#include <cstdint>

#include "corvel/sim_can.hpp"

namespace corvel::sim::fw {

class CanGenerator {
  public:
    // `start_us`: the adapter time at which it was set up.
    CanGenerator(const CanGeneratorSpec& setup, uint64_t start_us) : spec_(setup), start_(start_us) {}

    const CanGeneratorSpec& setup() const { return spec_; }
    // When frame k (from 1) is due, in adapter time.
    uint64_t due(uint64_t k) const;
    // The number of the last frame due at `t` (0 when none is).
    uint64_t last_due(uint64_t t) const;
    CanFrame frame(uint64_t k) const;

  private:
    CanGeneratorSpec spec_;
    uint64_t start_;
};

// The echo node's answer to `f`: identifier + 1 (wrapping within its format), the rest as it came.
CanFrame echo_answer(const CanFrame& f);

}  // namespace corvel::sim::fw
