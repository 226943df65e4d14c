// Helpers for asserting on the libusb calls the virtual adapter captured.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "corvel/sim.hpp"

namespace corvel::test {

using Bytes = std::vector<uint8_t>;
using sim::Call;
using sim::Record;

// Captured calls of one kind, in order.
inline std::vector<Record> calls(Call kind) {
    std::vector<Record> out;
    for (auto& r : sim::records())
        if (r.call == kind) out.push_back(r);
    return out;
}

inline std::size_t count(Call kind) {
    return calls(kind).size();
}

// Data of the non-empty bulk writes, i.e. the frames the library sent.
inline std::vector<Bytes> frames() {
    std::vector<Bytes> out;
    for (auto& r : calls(Call::BulkWrite))
        if (!r.data.empty()) out.push_back(r.data);
    return out;
}

// A reply packet as the firmware sends it: 7-byte header, payload, zero padding to `total` bytes.
inline Bytes reply(uint32_t code, uint8_t status, const Bytes& payload, std::size_t announced,
                   std::size_t total) {
    Bytes b{uint8_t(code >> 24),     uint8_t(code >> 16), uint8_t(code >> 8), uint8_t(code), status,
            uint8_t(announced >> 8), uint8_t(announced)};
    b.resize(std::max(total, b.size() + payload.size()), 0);
    for (std::size_t i = 0; i < payload.size(); ++i) b[7 + i] = payload[i];
    b.resize(total);
    return b;
}

inline sim::AdapterSpec adapter(const char* serial, int type = 1) {
    sim::AdapterSpec a;
    a.serial = serial;
    a.personality = type;
    return a;
}

}  // namespace corvel::test
