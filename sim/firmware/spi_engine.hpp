// The SPI engine: channel configuration, byte, bit and block transfers, slave mode, the serial-flash
// engine and the Microwire engine of the SPI-type adapter (personality 2; the other personalities
// have no SPI engine).
//
// The adapter has 16 chip selects, channels 0 to 15, each with its configuration and the part wired
// to it: the serial flash on 0, the loopback part on 1, nothing on the others (MISO floats high:
// reads give FF). Every transfer is one chip-select assertion: its write phase, then its read
// phase. The flash engine works on channel 0. Microwire has channels 0 to 32 of its own, each with
// the description the host gave; the Microwire EEPROM is on channel 0.
//
// Time. The engine works on the parts' time, which runs with the virtual clock while that is on
// and with the host's monotonic clock while it is off. A request's work starts when the work of
// the one before is done, and takes the bus time of its bits at the channel's clock (Microwire at
// 1 MHz), the pauses between blocks and the busy waits of the flash and Microwire engines. Status
// bytes of transfers go at once; read data is held until the host's data request and sent once
// the work is done; the flash and Microwire writes answer their status when done, since it tells
// how they went. With the clock off everything is answered at once.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "corvel/sim_spi.hpp"
#include "firmware/engine.hpp"
#include "targets/spi_target.hpp"

namespace corvel::sim::fw {

inline constexpr int kSpiChannels = proto::spi::kMaxChannel + 1;
inline constexpr int kMicrowireChannels = proto::spi::kMwInitMaxChannel + 1;
// The longest read the model answers (long and block write-reads, whose read length the host does
// not limit): the whole flash in one go.
inline constexpr std::size_t kSpiReadMax = std::size_t{4} << 20;

using SpiConfig = corvel::sim::SpiChannel;

class SpiEngine final : public Engine {
  public:
    explicit SpiEngine(Port& port);
    ~SpiEngine() override;

    std::span<const Route> routes() const override;

    // ---- For the control API. Channels outside 0..15 have nothing: null.
    const SpiConfig* config(int channel) const;
    SpiTarget* part(int channel);
    SpiTarget* microwire_part() { return microwire_.get(); }
    void detach(int channel);
    // The flash on 0, the loopback on 1, the Microwire EEPROM, each unless one is there.
    void attach_defaults();
    // The external master of slave mode: clocks `bytes` in, returns what the adapter clocked out.
    // Nothing unless the adapter is a slave.
    std::optional<Bytes> external_transfer(std::span<const uint8_t> bytes);
    // The parts' time now, in microseconds.
    uint64_t part_time();

  private:
    struct Channel {
        SpiConfig config;
        std::unique_ptr<SpiTarget> part;
    };
    // What one chip-select assertion goes through: the part, the bit rate and the bit order.
    struct Wiring {
        SpiTarget* part = nullptr;
        uint32_t clock_hz = 0;
        bool lsb_first = false;
    };
    // A command sequence of the flash description: up to seven bytes.
    struct Sequence {
        std::array<uint8_t, proto::spi::kFlashCommandBytes> bytes{};
        std::size_t count = 0;
        std::span<const uint8_t> view() const { return std::span(bytes).first(count); }
    };
    struct FlashDescription {
        uint32_t page_size = 0;
        uint32_t page_num = 0;
        Sequence write_enable, read_status, chip_erase, write_data, read_data, first_cmd;
        uint8_t busy_bit = 0;
        uint8_t busy_mask = 0;
        uint8_t addr_bytes = 0;
        uint8_t addr_shift = 0;
    };
    // Opcodes as the engine puts them on the wire (two bits each), and the frame's shape.
    struct MicrowireDescription {
        uint8_t erase_all = 0, ew_disable = 0, ew_enable = 0, write_all = 0;
        uint8_t control = 0, erase = 0, read = 0, write = 0;
        uint8_t addr_bits = 0;
        uint32_t size = 0;  // words
        uint8_t start = 0;
    };
    struct Pending {
        Bytes data;
        uint64_t due = 0;
        uint32_t fetch_code = 0;  // the data request that fetches it
    };

    // ---- Time and answers
    uint64_t begin();  // when the work of a new request can start
    void finish(uint64_t t) { free_at_ = t; }
    void at(uint64_t t, std::function<void()> fn);  // runs fn when the parts' time reaches t
    // A read's outcome: its status now, and its data (if any) held for `fetch_code`, due at `due`.
    void answer_read(std::optional<Bytes> data, uint64_t due, uint8_t ok, uint8_t error, uint32_t fetch_code);
    void drop_pending() { pending_.reset(); }

    // ---- The bus
    Channel* master(uint8_t index);
    bool slave() const;
    static void clock_through(const Wiring& w, std::span<const uint8_t> out, std::size_t out_bits,
                              std::span<uint8_t> in, std::size_t in_bits, uint64_t& t);
    // One chip-select assertion on a master channel; null when the channel cannot. `bytes`: a byte
    // transfer, to which the channel's bit order applies.
    std::optional<Bytes> exchange(uint8_t index, std::span<const uint8_t> out, std::size_t out_bits,
                                  std::size_t in_bits, bool bytes, uint64_t& t);
    std::optional<Bytes> blocks(uint8_t index, std::span<const uint8_t> out, std::size_t write_size,
                                std::size_t read_size, uint16_t count, uint32_t interval_us, uint64_t& t);

    // ---- Flash engine (spi_memories.cpp)
    std::optional<Wiring> flash_wiring();
    void flash_command(const Wiring& w, const Sequence& command, std::optional<uint64_t> page,
                       std::span<const uint8_t> data, std::span<uint8_t> in, uint64_t& t);
    bool flash_ready(const Wiring& w, uint64_t& t);
    bool run_flash_write(uint32_t page, std::span<const uint8_t> data, uint64_t& t);
    std::optional<Bytes> run_flash_read(uint32_t page, uint16_t len, uint64_t& t);

    // ---- Microwire engine (spi_memories.cpp)
    Wiring microwire_wiring(uint32_t index);
    void microwire_frame(const Wiring& w, const MicrowireDescription& d, uint8_t opcode, uint32_t address,
                         std::optional<uint16_t> data, uint64_t& t);
    void microwire_control(const Wiring& w, const MicrowireDescription& d, uint8_t command, uint64_t& t);
    bool microwire_ready(const Wiring& w, uint64_t& t);
    bool run_microwire_write(uint32_t index, uint32_t address, std::span<const uint8_t> words, uint64_t& t);
    std::optional<Bytes> run_microwire_read(uint32_t index, uint32_t address, uint16_t len, uint64_t& t);

    // ---- Route handlers
    void configure(Request& r);
    void write(Request& r);
    void read(Request& r);
    void write_read(Request& r);
    void write_bits(Request& r);
    void read_bits(Request& r);
    void write_read_bits(Request& r);
    void block_write(Request& r);
    void block_read(Request& r);
    void block_write_read(Request& r);
    void fetch(Request& r);
    void slave_load(Request& r);
    void slave_collect();
    void flash_init(Request& r);
    void flash_write(Request& r);
    void flash_read(Request& r);
    void microwire_init(Request& r);
    void microwire_write(Request& r);
    void microwire_read(Request& r);

    Port& port_;
    std::array<Channel, kSpiChannels> channels_;
    std::unique_ptr<SpiTarget> microwire_;
    std::optional<FlashDescription> flash_;
    std::array<std::optional<MicrowireDescription>, kMicrowireChannels> microwire_descriptions_;
    std::optional<Pending> pending_;
    Bytes slave_out_;  // loaded by the host for the external master
    std::size_t slave_out_taken_ = 0;
    Bytes slave_in_;  // clocked in by the external master, until the host collects it

    ModelTime time_;        // the parts' time
    uint64_t free_at_ = 0;  // when the work of the last request is done
};

std::unique_ptr<Engine> make_spi_engine(Port& port);

}  // namespace corvel::sim::fw
