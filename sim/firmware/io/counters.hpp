// The adapter's four pulse counters: each counts the edges of its source (see CounterSource)
// while it runs, up or down, wrapping at its width.
#pragma once

#include <array>
#include <cstdint>

#include "corvel/sim_io.hpp"

namespace corvel::sim::fw {

inline constexpr int kCounters = 4;

struct Counter {
    IoCounterState state;

    // `rising` and `falling` edges of its source happened; counted when it runs, by its polarity.
    void count(uint64_t rising, uint64_t falling) {
        if (!state.running) return;
        const uint64_t n = state.polarity == 0 ? rising : state.polarity == 1 ? falling : rising + falling;
        const uint32_t step = static_cast<uint32_t>(n);  // the value wraps: only n mod 2^32 matters
        state.value = state.mode == 0 ? state.value + step : state.value - step;
        state.value &= mask();
    }
    uint32_t mask() const { return state.width == 16 ? 0xFFFFu : 0xFFFFFFFFu; }
};

using CounterBank = std::array<Counter, kCounters>;

}  // namespace corvel::sim::fw
