// A part on one of the adapter's SPI chip selects, as the bus master sees it.
//
// The engine drives a part one chip-select assertion at a time: select, then bits clocked out
// (the master writes; what the part drives on MISO meanwhile is not looked at) and bits clocked in
// (the master reads, holding MOSI high), then deselect. Bits are packed most significant bit first,
// bit k in byte k / 8: the order in which they cross the wire. select and deselect carry the part's
// time in microseconds, so that parts with busy periods (erase and write cycles) can keep them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace corvel::sim::fw {

class SpiTarget {
  public:
    virtual ~SpiTarget() = default;

    virtual void select(uint64_t at_us) { (void)at_us; }
    // `bits` bits of `data` from the master.
    virtual void write(std::span<const uint8_t> data, std::size_t bits) = 0;
    // `bits` bits to the master, set into `data` (which the caller zeroed).
    virtual void read(std::span<uint8_t> data, std::size_t bits) = 0;
    virtual void deselect(uint64_t at_us) { (void)at_us; }
};

inline bool bit_at(std::span<const uint8_t> data, std::size_t k) {
    return ((data[k / 8] >> (7 - k % 8)) & 1) != 0;
}

inline void set_bit(std::span<uint8_t> data, std::size_t k) {
    data[k / 8] = static_cast<uint8_t>(data[k / 8] | (0x80 >> (k % 8)));
}

// A part that works in whole bytes, full duplex: the byte it drives out is fixed when the byte's
// first bit is clocked, from what it received before; the byte clocked in is handed over with its
// eighth bit. Bits of an unfinished byte stay in the shift register until the next one completes,
// and partial() tells the part at deselect that the transaction did not end on a byte boundary.
class ByteTarget : public SpiTarget {
  public:
    void select(uint64_t at_us) override;
    void write(std::span<const uint8_t> data, std::size_t bits) override;
    void read(std::span<uint8_t> data, std::size_t bits) override;

  protected:
    virtual uint8_t shift_out() = 0;          // the next byte for MISO
    virtual void shift_in(uint8_t byte) = 0;  // the byte that came in on MOSI
    bool partial() const { return bit_ != 0; }

  private:
    bool clock(bool in);  // one bit each way

    unsigned bit_ = 0;  // bits of the current byte clocked so far
    uint8_t in_ = 0;
    uint8_t out_ = 0xFF;
};

}  // namespace corvel::sim::fw
