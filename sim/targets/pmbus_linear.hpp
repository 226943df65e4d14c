// The PMBus number formats of the simulated power supplies.
//
// LINEAR11: one 16-bit word, bits 15-11 a two's complement exponent N (-16 to 15), bits 10-0 a
// two's complement mantissa Y (-1024 to 1023); the value is Y x 2^N. Currents and temperatures.
// LINEAR16: an unsigned 16-bit mantissa V whose exponent N is the low five bits of VOUT_MODE (two's
// complement); the value is V x 2^N. Output voltages and their limits.
//
// Encoding rounds to the nearest step. LINEAR11 takes the smallest exponent whose mantissa still
// fits, so the value keeps as many bits as the format allows (2.5 is 640 x 2^-8, 0xC280); a value
// beyond the format's range stops at its largest mantissa. LINEAR16 stops at 0 and 65535.
#pragma once

#include <cstdint>

namespace corvel::sim::fw::pmbus {

inline constexpr uint8_t kVoutModeExponentMask = 0x1F;
inline constexpr uint8_t kVoutModeLinear = 0x00;  // mode bits 7-5: 000 is the linear format

namespace detail {
constexpr double scale(double value, int exponent) {
    for (; exponent > 0; --exponent) value *= 2;
    for (; exponent < 0; ++exponent) value /= 2;
    return value;
}
constexpr long long nearest(double v) {
    return v >= 0 ? static_cast<long long>(v + 0.5) : -static_cast<long long>(-v + 0.5);
}
constexpr int signed5(unsigned bits) {
    bits &= 0x1F;
    return bits >= 0x10 ? static_cast<int>(bits) - 0x20 : static_cast<int>(bits);
}
}  // namespace detail

constexpr double linear11_decode(uint16_t word) {
    const int exponent = detail::signed5(word >> 11);
    int mantissa = word & 0x7FF;
    if (mantissa >= 0x400) mantissa -= 0x800;
    return detail::scale(mantissa, exponent);
}

constexpr uint16_t linear11_encode(double value) {
    constexpr int kMinExponent = -16, kMaxExponent = 15;
    constexpr long long kMinMantissa = -1024, kMaxMantissa = 1023;
    if (detail::nearest(detail::scale(value, -kMinExponent)) == 0) return 0;  // zero: 0 x 2^0
    long long mantissa = 0;
    int exponent = kMinExponent;
    for (; exponent <= kMaxExponent; ++exponent) {
        mantissa = detail::nearest(detail::scale(value, -exponent));
        if (mantissa >= kMinMantissa && mantissa <= kMaxMantissa) break;
    }
    if (exponent > kMaxExponent) {
        exponent = kMaxExponent;
        mantissa = value < 0 ? kMinMantissa : kMaxMantissa;
    }
    return static_cast<uint16_t>(((static_cast<unsigned>(exponent) & 0x1F) << 11) |
                                 (static_cast<unsigned>(mantissa) & 0x7FF));
}

constexpr double linear16_decode(uint16_t word, uint8_t vout_mode) {
    return detail::scale(word, detail::signed5(vout_mode));
}

constexpr uint16_t linear16_encode(double value, uint8_t vout_mode) {
    const long long v = detail::nearest(detail::scale(value, -detail::signed5(vout_mode)));
    return static_cast<uint16_t>(v < 0 ? 0 : v > 0xFFFF ? 0xFFFF : v);
}

}  // namespace corvel::sim::fw::pmbus
