// Text forms of what the I2C commands read from an adapter.
#pragma once

#include <bitset>
#include <cstdint>
#include <span>
#include <string>

namespace corvel::cli {

// The 7-bit addresses `corvel i2c scan` probes, as i2cdetect does by default: the ones below 0x03
// and above 0x77 are reserved.
inline constexpr int kFirstProbedAddress = 0x03;
inline constexpr int kLastProbedAddress = 0x77;

// The grid `i2cdetect -y` prints: a header line of the low digits, then one line per 16 addresses,
// "00: " to "70: ", each address a cell of three characters: its number in hex when it answered,
// "--" when it was probed without an answer, blanks when it lies outside first..last.
std::string scan_grid(const std::bitset<128>& answered, int first = kFirstProbedAddress,
                      int last = kLastProbedAddress);

// A fixed-size text field of the board information: the bytes up to the first NUL (all of them
// when there is none), each byte outside printable ASCII shown as '.'.
std::string field_text(std::span<const uint8_t> field);

}  // namespace corvel::cli
