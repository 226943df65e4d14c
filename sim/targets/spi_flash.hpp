// A 4 MiB serial NOR flash in the manner of a Winbond W25Q32: JEDEC id EF 40 16, 256-byte pages,
// 4 KiB sectors, 64 KiB blocks, 24-bit addresses (the top two bits are ignored, so addresses wrap
// at 4 MiB).
//
// Commands, each one chip-select assertion, the command byte first:
//   9F JEDEC id (EF 40 16, repeated)        05 status register (bit 0 BUSY, bit 1 WEL, repeated)
//   06 write enable / 04 write disable      03 read, 0B fast read (one dummy byte): A23..A0, data
//   02 page program: A23..A0 and the data   20 sector erase, D8 block erase: A23..A0
//   C7 or 60 chip erase                     B9 deep power-down / AB release (then device id 15)
// Reads run on through the whole array. A page program stores its bytes in the page buffer at
// the address's column and on, wrapping inside the 256-byte page (a later byte replaces an earlier
// one at the same column); at chip-select release the page is programmed: programming only clears
// bits (new = old AND data). Erased bytes read FF.
//
// As on the real part, program and erase need WEL (set by 06) and start when chip select is
// released after the last byte of a complete command (a command that ends mid-byte, or an erase or
// single-byte command with extra bytes, is not executed). The part is then busy: BUSY reads 1 and
// every command but the status read is ignored (MISO floats: FF) until the operation's time has
// passed, when BUSY and WEL clear. Times are fixed at typical values: page program 0.7 ms, sector
// erase 45 ms, block erase 150 ms, chip erase 2 s (the datasheet's chip erase takes longer; 2 s
// keeps an erase by the adapter's flash engine within the host's wait for its status). In deep
// power-down every command but AB is ignored.
//
// The contents live in a non-volatile store and change where the command changes them: a page
// program writes its page through, an erase its sector, block or the array.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "firmware/nv_store.hpp"
#include "targets/spi_target.hpp"

namespace corvel::sim::fw {

class SerialFlash final : public ByteTarget {
  public:
    static constexpr std::size_t kSize = std::size_t{4} << 20;
    static constexpr std::size_t kPageSize = 256;
    static constexpr std::size_t kSectorSize = 4096;
    static constexpr std::size_t kBlockSize = 65536;
    static constexpr uint64_t kPageProgramUs = 700;
    static constexpr uint64_t kSectorEraseUs = 45000;
    static constexpr uint64_t kBlockEraseUs = 150000;
    static constexpr uint64_t kChipEraseUs = 2000000;
    static constexpr std::array<uint8_t, 3> kJedecId{0xEF, 0x40, 0x16};
    static constexpr uint8_t kDeviceId = 0x15;
    static constexpr uint8_t kBusy = 0x01;
    static constexpr uint8_t kWriteEnabled = 0x02;

    // `memory` must hold kSize bytes and outlive the part.
    explicit SerialFlash(NvStore& memory) : memory_(memory) {}

    void select(uint64_t at_us) override;
    void deselect(uint64_t at_us) override;

    // The status register as a status read at `at_us` would see it.
    uint8_t status(uint64_t at_us);
    bool powered_down() const { return powered_down_; }
    // Page programs and erases carried out since the part was made.
    uint64_t programs() const { return programs_; }
    uint64_t erases() const { return erases_; }
    NvStore& memory() { return memory_; }
    // Erases the whole array at once, with no busy period (the control API's blank chip).
    void erase_all();

  protected:
    uint8_t shift_out() override;
    void shift_in(uint8_t byte) override;

  private:
    void settle(uint64_t at_us);  // ends a busy period that is over by then
    std::size_t address() const { return addr_ & (kSize - 1); }
    void program();
    void erase(std::size_t size);
    void start_busy(uint64_t at_us, uint64_t duration_us);

    NvStore& memory_;
    bool write_enabled_ = false;
    bool powered_down_ = false;
    bool busy_ = false;
    uint64_t busy_until_ = 0;
    uint64_t programs_ = 0;
    uint64_t erases_ = 0;

    // The transaction under way.
    bool ignored_ = false;  // busy or powered down: the command is not taken
    uint8_t command_ = 0;
    std::size_t count_ = 0;  // bytes received
    uint32_t addr_ = 0;
    std::array<uint8_t, kPageSize> page_{};  // the page buffer of a program
};

}  // namespace corvel::sim::fw
