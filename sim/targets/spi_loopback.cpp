#include "targets/spi_loopback.hpp"

namespace corvel::sim::fw {

bool SpiLoopback::at(std::size_t i) const {
    return bit_at(bits_, (head_ + i) % kCapacity);
}

void SpiLoopback::write(std::span<const uint8_t> data, std::size_t bits) {
    for (std::size_t k = 0; k < bits; ++k) {
        if (size_ == kCapacity) {
            head_ = (head_ + 1) % kCapacity;
            --size_;
        }
        const std::size_t slot = (head_ + size_) % kCapacity;
        const uint8_t mask = static_cast<uint8_t>(0x80 >> (slot % 8));
        uint8_t& cell = bits_[slot / 8];
        cell = static_cast<uint8_t>(bit_at(data, k) ? cell | mask : cell & ~mask);
        ++size_;
    }
}

void SpiLoopback::read(std::span<uint8_t> data, std::size_t bits) {
    for (std::size_t k = 0; k < bits; ++k) {
        if (size_ == 0 || at(0)) set_bit(data, k);
        if (size_ > 0) {
            head_ = (head_ + 1) % kCapacity;
            --size_;
        }
    }
}

std::string SpiLoopback::pending() const {
    std::string out(size_, '0');
    for (std::size_t i = 0; i < size_; ++i)
        if (at(i)) out[i] = '1';
    return out;
}

}  // namespace corvel::sim::fw
