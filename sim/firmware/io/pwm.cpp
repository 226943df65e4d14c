#include "firmware/io/pwm.hpp"

#include <algorithm>

namespace corvel::sim::fw {
namespace {

// Positions within a period are counted in steps of 1/200 of it, fine enough for the pulse
// percentages and their halves (centre-aligned). With f in Hz and t in microseconds, the steps
// done by t are floor(t x f / 5000).
constexpr uint64_t kStepsPerPeriod = 200;
constexpr uint64_t kUsPerStepHz = 1000000 / kStepsPerPeriod;
constexpr uint8_t kModeToggle = 3;

// One cycle of the raw (polarity 0) waveform: high for the steps [high_from, high_to) of each
// `cycle` steps.
struct Shape {
    uint64_t cycle, high_from, high_to;
    bool constant() const { return high_from >= high_to || (high_from == 0 && high_to == cycle); }
};

Shape shape(const PwmOutput& o) {
    const uint64_t p = std::min<uint64_t>(o.pulse, 100);
    switch (o.mode) {
        case 0:
            return {kStepsPerPeriod, 0, 2 * p};
        case 1:
            return {kStepsPerPeriod, 2 * p, kStepsPerPeriod};
        case 2:
            return {kStepsPerPeriod, 100 - p, 100 + p};
        default:
            return {2 * kStepsPerPeriod, 0, kStepsPerPeriod};
    }
}

// Steps done `x` microseconds after the origin. The product needs more than 64 bits (f up to
// 2e7 Hz times days in microseconds).
uint64_t steps(uint32_t frequency, uint64_t x) {
    return static_cast<uint64_t>(static_cast<unsigned __int128>(x) * frequency / kUsPerStepHz);
}

// Edges at the steps `at` + k x cycle (k >= 0) reached by step u.
uint64_t reached(uint64_t u, uint64_t at, uint64_t cycle) {
    return u >= at ? (u - at) / cycle + 1 : 0;
}

bool inverted(const PwmOutput& o) {
    return o.mode != kModeToggle && o.polarity != 0;
}

}  // namespace

void PwmBank::init(uint8_t mask, uint8_t mode, uint8_t polarity, uint8_t pulse, uint32_t frequency,
                   uint64_t now) {
    for (int n = 0; n < kPwmOutputs; ++n) {
        if (!(mask >> n & 1u)) continue;
        PwmOutput& o = out_[static_cast<std::size_t>(n)];
        o.mode = mode;
        o.polarity = polarity;
        o.pulse = pulse;
        o.frequency = frequency;
        o.origin = now;
    }
}

void PwmBank::start(uint8_t mask, uint64_t now) {
    for (int n = 0; n < kPwmOutputs; ++n) {
        PwmOutput& o = out_[static_cast<std::size_t>(n)];
        if (!(mask >> n & 1u) || o.running) continue;  // a running output goes on as it is
        o.running = true;
        o.origin = now;
    }
}

void PwmBank::stop(uint8_t mask) {
    for (int n = 0; n < kPwmOutputs; ++n)
        if (mask >> n & 1u) out_[static_cast<std::size_t>(n)].running = false;
}

void PwmBank::set_pulse(uint8_t mask, const std::array<uint8_t, kPwmOutputs>& pulse) {
    for (std::size_t n = 0; n < out_.size(); ++n)
        if (mask >> n & 1u) out_[n].pulse = pulse[n];
}

void PwmBank::set_frequency(uint8_t mask, const std::array<uint32_t, kPwmOutputs>& frequency, uint64_t now) {
    for (std::size_t n = 0; n < out_.size(); ++n) {
        if (!(mask >> n & 1u)) continue;
        out_[n].frequency = frequency[n];
        out_[n].origin = now;  // the new period starts now
    }
}

bool PwmBank::level(int n, uint64_t t) const {
    const PwmOutput& o = output(n);
    if (!o.running) return inverted(o);
    const Shape s = shape(o);
    const uint64_t at = steps(o.frequency, t - std::min(t, o.origin)) % s.cycle;
    return (at >= s.high_from && at < s.high_to) != inverted(o);
}

uint8_t PwmBank::levels(uint64_t t) const {
    uint8_t bits = 0;
    for (int n = 0; n < kPwmOutputs; ++n)
        if (level(n, t)) bits |= static_cast<uint8_t>(1u << n);
    return bits;
}

Edges PwmBank::edges(int n, uint64_t a, uint64_t b) const {
    const PwmOutput& o = output(n);
    const Shape s = shape(o);
    if (!o.running || b <= a || s.constant()) return {};
    const uint64_t ua = steps(o.frequency, a - std::min(a, o.origin));
    const uint64_t ub = steps(o.frequency, b - std::min(b, o.origin));
    // The edge at the origin itself is the start, which the caller sees as a change of level.
    const uint64_t up = reached(ub, s.high_from, s.cycle) - reached(ua, s.high_from, s.cycle);
    const uint64_t down = reached(ub, s.high_to, s.cycle) - reached(ua, s.high_to, s.cycle);
    return inverted(o) ? Edges{down, up} : Edges{up, down};
}

}  // namespace corvel::sim::fw
