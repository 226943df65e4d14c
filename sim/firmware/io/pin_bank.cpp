#include "firmware/io/pin_bank.hpp"

#include <algorithm>

#include "corvel/protocol.hpp"

namespace corvel::sim::fw {

namespace gpio = proto::gpio;

void PinBank::init(uint32_t mask, uint32_t pin_mode) {
    for (int n = 0; n < kIoPins; ++n)
        if (mask >> n & 1u) mode_[static_cast<std::size_t>(n)] = pin_mode >> (2 * (n % 16)) & 3u;
}

void PinBank::write(uint32_t mask, uint32_t data) {
    mask &= gpio::kExMaskBits;
    latch_ = (latch_ & ~mask) | (data & mask);
}

bool PinBank::set_wiring(IoWiring wiring) {
    for (const IoWire& w : wiring)
        if (w.a < 0 || w.a >= kIoPins || w.b < 0 || w.b >= kIoPins) return false;
    // Nets by repeated merging: each pin ends up named after the lowest pin it is joined to.
    std::array<uint8_t, kIoPins> net;
    for (int n = 0; n < kIoPins; ++n) net[static_cast<std::size_t>(n)] = static_cast<uint8_t>(n);
    for (bool changed = true; changed;) {
        changed = false;
        for (const IoWire& w : wiring) {
            uint8_t& a = net[static_cast<std::size_t>(w.a)];
            uint8_t& b = net[static_cast<std::size_t>(w.b)];
            if (a != b) {
                const uint8_t low = std::min(a, b), high = std::max(a, b);
                for (uint8_t& x : net)
                    if (x == high) x = low;
                changed = true;
            }
        }
    }
    net_ = net;
    wiring_ = std::move(wiring);
    return true;
}

PinBank::Solution PinBank::solve() const {
    Solution s;
    for (int root = 0; root < kIoPins; ++root) {
        uint32_t pins = 0, high = 0, low = 0, sinks = 0, pull_ups = 0;
        for (int n = 0; n < kIoPins; ++n) {
            const auto i = static_cast<std::size_t>(n);
            if (net_[i] != root) continue;
            const uint32_t bit = 1u << n;
            pins |= bit;
            if (outside_[i]) (*outside_[i] ? high : low) |= bit;
            if (mode_[i] == gpio::kFieldOutput) (latch(n) ? high : low) |= bit;
            if (mode_[i] == gpio::kFieldOpenDrain) (latch(n) ? pull_ups : sinks) |= bit;
            if (mode_[i] == gpio::kFieldInputPullUp) pull_ups |= bit;
        }
        if (pins == 0) continue;
        bool level;
        if (high != 0 && (low != 0 || sinks != 0)) {
            level = false;
            s.contention |= high | low | sinks;
        } else if (high != 0 || low != 0) {
            level = high != 0;
        } else {
            level = sinks == 0 && pull_ups != 0;
        }
        if (level) s.levels |= pins;
    }
    return s;
}

}  // namespace corvel::sim::fw
