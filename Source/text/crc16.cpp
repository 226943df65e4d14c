#include "crc16.h"

#include <array>

namespace {

// The CRC of each byte value on its own, shifted through the polynomial 0x1021.
constexpr std::array<uint16_t, 256> make_table() {
    std::array<uint16_t, 256> table{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t crc = byte << 8;
        for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) != 0 ? (crc << 1) ^ 0x1021 : crc << 1;
        table[byte] = static_cast<uint16_t>(crc);
    }
    return table;
}

constexpr std::array<uint16_t, 256> kTable = make_table();

}  // namespace

uint16_t crc16_ccitt(const uint8_t* data, std::size_t length) {
    uint16_t crc = 0;
    for (std::size_t i = 0; i < length; ++i)
        crc = static_cast<uint16_t>(crc << 8) ^ kTable[((crc >> 8) ^ data[i]) & 0xFF];
    return crc;
}
