#include "targets/spi_target.hpp"

namespace corvel::sim::fw {

void ByteTarget::select(uint64_t at_us) {
    (void)at_us;
    bit_ = 0;
    in_ = 0;
}

bool ByteTarget::clock(bool in) {
    if (bit_ == 0) out_ = shift_out();
    const bool out = ((out_ >> (7 - bit_)) & 1) != 0;
    in_ = static_cast<uint8_t>(in_ << 1 | (in ? 1 : 0));
    if (++bit_ == 8) {
        bit_ = 0;
        shift_in(in_);
    }
    return out;
}

void ByteTarget::write(std::span<const uint8_t> data, std::size_t bits) {
    std::size_t k = 0;
    // Whole bytes on a byte boundary, the usual case, without going bit by bit.
    if (bit_ == 0) {
        for (; k + 8 <= bits; k += 8) {
            out_ = shift_out();
            shift_in(data[k / 8]);
        }
    }
    for (; k < bits; ++k) clock(bit_at(data, k));
}

void ByteTarget::read(std::span<uint8_t> data, std::size_t bits) {
    std::size_t k = 0;
    if (bit_ == 0) {
        for (; k + 8 <= bits; k += 8) {
            data[k / 8] = shift_out();
            shift_in(0xFF);
        }
    }
    for (; k < bits; ++k)
        if (clock(true)) set_bit(data, k);
}

}  // namespace corvel::sim::fw
