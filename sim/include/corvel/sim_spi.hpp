// Control API of the virtual adapter's SPI side: the firmware's channel configuration, the
// simulated parts (the serial flash on chip select 0, the loopback on chip select 1, the Microwire
// EEPROM), and an external master for slave mode.
//
// An unknown adapter, an adapter without SPI (any type but 2) or a channel outside 0..15 gives
// harmless defaults (a default SpiChannel, empty vectors and strings) and changes nothing; so do
// the flash and loopback functions while their part is detached.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "corvel/sim.hpp"

namespace corvel::sim {

// A channel's configuration as the firmware holds it: the power-on defaults until the host sends
// KSI_InitSPI (every channel) or KSI_InitSPIEx (one channel).
struct SpiChannel {
    bool configured = false;  // set by the host since the adapter was made
    uint8_t control_mode = 0;
    uint8_t tran_bits = 8;
    uint8_t master_mode = 1;  // 1 master, 0 slave
    uint8_t cpol = 0;
    uint8_t cpha = 0;
    uint8_t lsb_first = 0;
    uint8_t sel_polarity = 0;
    uint32_t clock_hz = 1000000;
};
CORVEL_SIM_API SpiChannel spi_channel(int adapter, int channel);

// The serial flash (W25Q32-style, 4 MiB) on chip select 0. Its contents are non-volatile.
struct SpiFlashState {
    uint8_t status = 0;  // the status register as a read would see it now: bit 0 BUSY, bit 1 WEL
    bool powered_down = false;
    uint64_t page_programs = 0;  // carried out since the adapter was made
    uint64_t erases = 0;
    uint64_t bytes_written = 0;  // file I/O of its non-volatile store
};
CORVEL_SIM_API SpiFlashState spi_flash_state(int adapter);
// `count` bytes from `offset` (bytes past the end read FF); the setter stores what fits, written
// through; erase_spi_flash blanks the whole chip at once (no busy period).
CORVEL_SIM_API std::vector<uint8_t> spi_flash(int adapter, uint32_t offset, std::size_t count);
CORVEL_SIM_API void set_spi_flash(int adapter, uint32_t offset, const std::vector<uint8_t>& bytes);
CORVEL_SIM_API void erase_spi_flash(int adapter);

// The loopback part on chip select 1: the bits written and not read back yet, oldest first, as
// '0' and '1'; and emptying it.
CORVEL_SIM_API std::string spi_loopback_bits(int adapter);
CORVEL_SIM_API void clear_spi_loopback(int adapter);

// The Microwire EEPROM (93C66-style, 256 words of 16 bits) on Microwire channel 0. Its contents are
// non-volatile; the setter stores words from address 0 on, written through.
CORVEL_SIM_API std::vector<uint16_t> spi_microwire(int adapter);
CORVEL_SIM_API void set_spi_microwire(int adapter, const std::vector<uint16_t>& words);

// Removes the part on a chip select (reads from it then give FF), or puts back the default parts
// that are missing. A flash put back is the same chip: its contents are kept.
CORVEL_SIM_API void spi_detach(int adapter, int channel);
CORVEL_SIM_API void spi_attach_defaults(int adapter);

// An external master clocking `bytes` into the adapter working as a slave (channel 0 configured
// with MasterMode 0): returns what the adapter clocked out meanwhile (the bytes loaded with
// KSI_SlaveWriteBytes, then FF), and keeps what came in for KSI_SlaveReadBytes. Empty, and nothing
// kept, unless the adapter is a slave.
CORVEL_SIM_API std::vector<uint8_t> spi_master_transfer(int adapter, const std::vector<uint8_t>& bytes);

}  // namespace corvel::sim
