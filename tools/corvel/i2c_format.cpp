#include "i2c_format.hpp"

#include <algorithm>

#include <fmt/core.h>

namespace corvel::cli {

std::string scan_grid(const std::bitset<128>& answered, int first, int last) {
    std::string out = "     0  1  2  3  4  5  6  7  8  9  a  b  c  d  e  f\n";
    for (int row = 0; row < 128; row += 16) {
        out += fmt::format("{:02x}: ", row);
        for (int addr = row; addr < row + 16; ++addr) {
            if (addr < first || addr > last) {
                out += "   ";
            } else if (answered[static_cast<std::size_t>(addr)]) {
                out += fmt::format("{:02x} ", addr);
            } else {
                out += "-- ";
            }
        }
        out += '\n';
    }
    return out;
}

std::string field_text(std::span<const uint8_t> field) {
    std::string out;
    for (uint8_t b : field) {
        if (b == 0) break;
        out += (b >= 0x20 && b < 0x7f) ? static_cast<char>(b) : '.';
    }
    return out;
}

}  // namespace corvel::cli
