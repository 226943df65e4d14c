// A 24C02-style serial EEPROM: 256 bytes in 8-byte pages behind an 8-bit word address.
//
// After START with the write bit the first byte sets the address pointer; the bytes after it are
// stored at the pointer, which then advances within its page only (a write running past the end of
// the page wraps to the page's start, as the part's page buffer does). Reads start at the pointer
// and run on through the whole array, wrapping at its end. Writing the word address alone only
// sets the pointer: the usual first half of a random read.
//
// The contents live in a non-volatile store, so they survive the adapter and the process. They
// reach the store at STOP, once per transaction, as the part starts its write cycle there.
#pragma once

#include <cstddef>
#include <cstdint>

#include "firmware/nv_store.hpp"
#include "targets/i2c_target.hpp"

namespace corvel::sim::fw {

class Eeprom final : public I2cTarget {
  public:
    static constexpr std::size_t kSize = 256;
    static constexpr std::size_t kPage = 8;

    // `memory` must hold kSize bytes (a smaller store reads as erased past its end) and outlive the part.
    explicit Eeprom(NvStore& memory) : memory_(memory) {}

    bool start(bool read) override;
    bool write(uint8_t byte) override;
    uint8_t read() override;
    void stop() override;

    NvStore& memory() { return memory_; }

  private:
    void commit();

    NvStore& memory_;
    uint8_t pointer_ = 0;
    bool expect_address_ = false;  // the next written byte is the word address
    bool dirty_ = false;
};

}  // namespace corvel::sim::fw
