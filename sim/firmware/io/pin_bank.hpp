// The adapter's 24 GPIO pins and the wiring harness outside them.
//
// Each pin has a mode (a 2-bit field of the host's PinMode: 0 input with pull-up, 1 push-pull
// output, 2 open-drain output with pull-up, 3 input, high impedance; power-on 3), an output latch
// (power-on 0) and possibly an outside driver. Wires join pins into nets, and every pin reads the
// level of its net:
//   - push-pull outputs and outside drivers drive it; when they disagree, or one drives 1 while an
//     open-drain output pulls low, the net reads 0 and those pins are in contention;
//   - else an open-drain output with latch 0 pulls it low;
//   - else a pull-up (open-drain with latch 1, input with pull-up) makes it 1;
//   - else nobody drives it and it reads 0.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <utility>

#include "corvel/sim_adapter.hpp"

namespace corvel::sim::fw {

inline constexpr int kIoPins = 24;

class PinBank {
  public:
    explicit PinBank(IoWiring wiring) {
        mode_.fill(proto::gpio::kFieldInput);
        set_wiring(std::move(wiring));
    }

    // The masked pins take their 2-bit field of `pin_mode` (pin n: bits 2(n mod 16) and up).
    void init(uint32_t mask, uint32_t pin_mode);
    // The masked pins' latches take bit n of `data`.
    void write(uint32_t mask, uint32_t data);
    void drive(int pin, std::optional<bool> level) { outside_[static_cast<std::size_t>(pin)] = level; }
    bool set_wiring(IoWiring wiring);  // false (nothing changes) when a wire names no pin
    const IoWiring& wiring() const { return wiring_; }

    // Bit n: the level of pin n, or whether pin n is in contention.
    uint32_t levels() const { return solve().levels; }
    uint32_t contention() const { return solve().contention; }

    uint8_t mode(int pin) const { return mode_[static_cast<std::size_t>(pin)]; }
    bool latch(int pin) const { return latch_ >> pin & 1u; }
    std::optional<bool> outside(int pin) const { return outside_[static_cast<std::size_t>(pin)]; }

  private:
    struct Solution {
        uint32_t levels = 0, contention = 0;
    };
    Solution solve() const;

    std::array<uint8_t, kIoPins> mode_;
    uint32_t latch_ = 0;
    std::array<std::optional<bool>, kIoPins> outside_{};
    IoWiring wiring_;
    std::array<uint8_t, kIoPins> net_{};  // the lowest pin of each pin's net
};

}  // namespace corvel::sim::fw
