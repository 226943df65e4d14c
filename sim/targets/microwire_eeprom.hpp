// A 93C66-style Microwire EEPROM organised as 256 words of 16 bits (ORG tied high: x16).
//
// Each instruction is one chip-select assertion: a start bit (the first 1 on DI; leading zeros are
// ignored), a two-bit opcode, eight address bits, then the data where the instruction has some:
//   10 READ  A7..A0          DO: a dummy 0, then the word's bits D15..D0, running on through the
//                            following words (wrapping at the end of the array)
//   01 WRITE A7..A0 D15..D0  00 11xxxxxx EWEN (write enable)   00 00xxxxxx EWDS (write disable)
//   11 ERASE A7..A0          00 10xxxxxx ERAL (erase all)      00 01xxxxxx D15..D0 WRAL (write all)
// WRITE, ERASE, ERAL and WRAL are carried out when chip select drops after a complete instruction,
// and only while writes are enabled (EWEN; EWDS or a new part disables them). They start a
// programming cycle: 3 ms for one word, 6 ms for the whole array. During it the part takes no
// instruction and DO reads 0 (busy) whenever it is not shifting out data; once ready DO floats high
// (1). Erased words read FFFF.
//
// The words live in a non-volatile store, most significant byte first; each cycle writes through
// what it changed.
#pragma once

#include <cstddef>
#include <cstdint>

#include "firmware/nv_store.hpp"
#include "targets/spi_target.hpp"

namespace corvel::sim::fw {

class MicrowireEeprom final : public SpiTarget {
  public:
    static constexpr std::size_t kWords = 256;
    static constexpr std::size_t kBytes = 2 * kWords;
    static constexpr unsigned kAddressBits = 8;
    static constexpr uint64_t kWordCycleUs = 3000;
    static constexpr uint64_t kArrayCycleUs = 6000;

    // `memory` must hold kBytes bytes and outlive the part.
    explicit MicrowireEeprom(NvStore& memory) : memory_(memory) {}

    void select(uint64_t at_us) override;
    void write(std::span<const uint8_t> data, std::size_t bits) override;
    void read(std::span<uint8_t> data, std::size_t bits) override;
    void deselect(uint64_t at_us) override;

    NvStore& memory() { return memory_; }
    bool write_enabled() const { return write_enabled_; }

  private:
    enum class Phase : uint8_t { Start, Opcode, Address, Data, Output, Done };

    void take(bool bit);  // one bit on DI
    uint16_t word(std::size_t index) const;
    void store(std::size_t first, std::size_t count, uint16_t value, uint64_t at_us, uint64_t cycle_us);

    NvStore& memory_;
    bool write_enabled_ = false;
    bool busy_ = false;
    uint64_t busy_until_ = 0;

    // The instruction under way.
    bool ignored_ = false;  // arrived during a programming cycle
    Phase phase_ = Phase::Start;
    unsigned opcode_ = 0;
    unsigned address_ = 0;
    unsigned field_bits_ = 0;  // bits of the opcode, address or data field taken so far
    uint16_t data_ = 0;
    std::size_t out_bit_ = 0;  // bits shifted out on DO: the dummy 0, then 16 per word
};

}  // namespace corvel::sim::fw
