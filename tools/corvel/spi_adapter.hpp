// Adapters of the SPI family, found, opened and talked to for the length of one command.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

namespace corvel::cli {

// -d/--device left out: the command looks for its adapter itself.
inline constexpr int32_t kAnyAdapter = -1;

// Opens SPI adapter `dev` with KSI_OpenDevice, runs `body` with its index and closes it again. With
// kAnyAdapter it scans the buses and takes the first adapter whose USB product name says "SPI", or
// adapter 0 when none does. A failure to find, open or close is reported as an error line. Returns
// the body's exit status; kExitFailure when no adapter could be opened, or closed after a body that
// succeeded.
int with_spi_adapter(int32_t dev, const std::function<int(int32_t dev)>& body);

// Points standard output at /dev/null while it lives: the library prints a line on stdout at every
// write-read, which must not mix with the tool's output. What the tool printed before is flushed
// first; stdout is restored, with the library's text flushed away, when the guard ends. When
// stdout cannot be redirected (no /dev/null, no descriptor free) it is left as it is.
class QuietStdout {
  public:
    QuietStdout();
    ~QuietStdout();
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

  private:
    int saved_ = -1;  // the tool's stdout, while it is parked
};

// How a channel is set up: SPI mode (clock polarity in bit 1, phase in bit 0), clock, bits per
// transfer unit, bit order and chip-select polarity. The adapter is always the master.
struct SpiSetup {
    int mode = 0;
    uint32_t speed = 1000000;
    int bits = 8;
    bool lsb_first = false;
    bool cs_high = false;  // chip select active high
};

// Sets channel `channel` up with KSI_InitSPIEx.
int32_t spi_init(int32_t dev, int32_t channel, const SpiSetup& setup);

// Clocks `out` out on `channel` with its chip select held (KSI_WriteBytes, at most 65535 bytes).
int32_t spi_write(int32_t dev, int32_t channel, std::span<const uint8_t> out);

// Clocks `out` out, then `in.size()` bytes in, in one transfer: KSI_WriteReadBytes where the counts
// fit it, KSI_WriteReadBytesEx otherwise. The library's stdout line is kept out of the tool's output.
int32_t spi_write_read(int32_t dev, int32_t channel, std::span<const uint8_t> out, std::span<uint8_t> in);

}  // namespace corvel::cli
