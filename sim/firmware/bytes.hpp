// Byte strings of the firmware model, and appending big-endian fields to them (answers are built
// this way; requests are read with corvel::proto::Reader).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "corvel/protocol.hpp"

namespace corvel::sim::fw {

using Bytes = std::vector<uint8_t>;

inline void append_be16(Bytes& out, uint32_t v) {
    std::array<uint8_t, 2> field{};
    proto::put_be16(field.data(), v);
    out.insert(out.end(), field.begin(), field.end());
}

inline void append_be32(Bytes& out, uint32_t v) {
    std::array<uint8_t, 4> field{};
    proto::put_be32(field.data(), v);
    out.insert(out.end(), field.begin(), field.end());
}

// a + b, stopping at the largest value instead of wrapping (time-outs added to the clock).
inline uint64_t saturating_add(uint64_t a, uint64_t b) {
    return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max() : a + b;
}

}  // namespace corvel::sim::fw
