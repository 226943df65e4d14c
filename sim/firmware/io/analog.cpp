#include "firmware/io/analog.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace corvel::sim::fw {
namespace {

constexpr double kSteps = 4096;  // 12 bits
constexpr double kFullScale = proto::adc::kFullScale;
constexpr double kReferenceVolts = proto::adc::kReferenceMillivolts / 1000.0;
constexpr double kMid = 2048;
constexpr double kMaxAmplitude = 2047;
constexpr double kUsPerSecond = 1e6;

// The fraction of its period a signal of `hz` has gone through at `t_us`, in [0, 1). Worked out on
// the product t x f in microseconds, exact for whole frequencies up to 2^53.
double phase(double hz, uint64_t t_us) {
    if (hz <= 0) return 0;
    const double cycles_us = std::fmod(static_cast<double>(t_us) * hz, kUsPerSecond);
    return cycles_us / kUsPerSecond;
}

double clamp_counts(double v) {
    return std::clamp(v, 0.0, kFullScale);
}

}  // namespace

uint16_t adc_counts(double volts) {
    return static_cast<uint16_t>(clamp_counts(std::round(volts * kSteps / kReferenceVolts)));
}

uint16_t adc_sample(const AdcSignal& s, uint64_t t_us) {
    const double p = phase(s.hz, t_us);
    switch (s.kind) {
        case AdcSignal::Kind::Dc:
            return adc_counts(s.volts);
        case AdcSignal::Kind::Ramp:
            return static_cast<uint16_t>(clamp_counts(std::floor(kSteps * p)));
        case AdcSignal::Kind::Sine: {
            const double a = std::clamp(s.volts * kSteps / kReferenceVolts, 0.0, kMaxAmplitude);
            return static_cast<uint16_t>(
                clamp_counts(std::round(kMid + a * std::sin(2 * std::numbers::pi * p))));
        }
        case AdcSignal::Kind::Square:
            return p < 0.5 ? proto::adc::kFullScale : 0;
    }
    return 0;
}

}  // namespace corvel::sim::fw
