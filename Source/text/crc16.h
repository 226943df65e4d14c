// CRC-16 with polynomial 0x1021, initial value 0, most significant bit first, no reflection and no
// final XOR (the XMODEM parameters), computed through a 256-entry table.
#pragma once

#include <cstddef>
#include <cstdint>

uint16_t crc16_ccitt(const uint8_t* data, std::size_t length);
