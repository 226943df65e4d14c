// A loopback part: what the master writes comes back when it reads.
//
// The bits written go into a FIFO that outlives the transaction; the bits read come out of it in
// the same order, so a write followed by a read (or the write phase of a write-read followed by
// its read phase) returns exactly the bits that went out, whatever their number. Reading an empty
// FIFO gives 1 bits, as a floating MISO does. The FIFO holds kCapacity bits; beyond that the oldest
// bits are dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "targets/spi_target.hpp"

namespace corvel::sim::fw {

class SpiLoopback final : public SpiTarget {
  public:
    static constexpr std::size_t kCapacity = std::size_t{1} << 20;

    void write(std::span<const uint8_t> data, std::size_t bits) override;
    void read(std::span<uint8_t> data, std::size_t bits) override;

    // The bits waiting, oldest first, as '0' and '1'.
    std::string pending() const;
    void clear() { head_ = size_ = 0; }

  private:
    bool at(std::size_t i) const;  // the i-th waiting bit

    std::vector<uint8_t> bits_ = std::vector<uint8_t>(kCapacity / 8);  // a ring of bits
    std::size_t head_ = 0;                                             // the oldest bit
    std::size_t size_ = 0;
};

}  // namespace corvel::sim::fw
