// Byte strings and the big-endian helpers of the adapter's wire format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace corvel::sim::fw {

using Bytes = std::vector<uint8_t>;

inline uint16_t get_be16(const uint8_t* p) {
    return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

inline uint32_t get_be32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}

inline void put_be16(Bytes& out, uint16_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
}

inline void put_be32(Bytes& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(v >> shift));
}

// a + b, stopping at the largest value instead of wrapping (time-outs added to the clock).
inline uint64_t saturating_add(uint64_t a, uint64_t b) {
    return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
}

}  // namespace corvel::sim::fw
