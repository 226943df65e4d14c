// The adapter's eight PWM outputs, each a waveform of the adapter's time.
//
// An output runs from its origin (the time it was started, or its frequency or mode last changed
// while running) with period 1/f:
//   mode 0  edge-aligned: active for the first pulse % of each period
//   mode 1  the inverse of mode 0
//   mode 2  centre-aligned: active in the middle pulse % of each period
//   mode 3  toggle: the output changes at the end of every period (a 50 % square wave at f/2),
//           pulse and polarity ignored
// Active is high, low with polarity 1; a stopped output rests inactive (low for mode 3). A pulse
// change while running keeps the origin, so the output continues its period with the new duty.
// Edges are worked out with integer arithmetic on the instants, so counters driven by an output
// are exact over any span.
#pragma once

#include <array>
#include <cstdint>

namespace corvel::sim::fw {

inline constexpr int kPwmOutputs = 8;

struct PwmOutput {
    uint8_t mode = 0, polarity = 0, pulse = 50;
    uint32_t frequency = 1000;
    bool running = false;
    uint64_t origin = 0;  // adapter time, microseconds
};

struct Edges {
    uint64_t rising = 0, falling = 0;
};

class PwmBank {
  public:
    const PwmOutput& output(int n) const { return out_[static_cast<std::size_t>(n)]; }

    // Changes at the adapter's time `now`, to the masked outputs. Values are the host's, checked.
    void init(uint8_t mask, uint8_t mode, uint8_t polarity, uint8_t pulse, uint32_t frequency, uint64_t now);
    void start(uint8_t mask, uint64_t now);
    void stop(uint8_t mask);
    void set_pulse(uint8_t mask, const std::array<uint8_t, kPwmOutputs>& pulse);
    void set_frequency(uint8_t mask, const std::array<uint32_t, kPwmOutputs>& frequency, uint64_t now);

    // The level of output n at time t (at an edge's instant, the level after it), t >= its origin.
    bool level(int n, uint64_t t) const;
    // Bit n: output n at time t.
    uint8_t levels(uint64_t t) const;
    // The output's edges in (a, b], with its settings unchanged over that span.
    Edges edges(int n, uint64_t a, uint64_t b) const;

  private:
    std::array<PwmOutput, kPwmOutputs> out_{};
};

}  // namespace corvel::sim::fw
