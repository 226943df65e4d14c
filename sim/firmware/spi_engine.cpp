#include "firmware/spi_engine.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

#include "CorvelMsg.h"
#include "targets/microwire_eeprom.hpp"
#include "targets/spi_flash.hpp"
#include "targets/spi_loopback.hpp"

namespace corvel::sim::fw {
namespace {

// Request sizes: exact, or the fixed part around the data.
constexpr std::size_t kConfigSize = 11;
constexpr std::size_t kConfigExSize = 12;
constexpr std::size_t kWriteTail = 1;            // the channel behind the data
constexpr std::size_t kReadSize = 3;             // length (2), channel
constexpr std::size_t kWriteReadTail = 3;        // read length (2), channel
constexpr std::size_t kLongWriteReadTail = 5;    // read length (4), channel
constexpr std::size_t kBitWriteTail = 5;         // bit count (4), channel
constexpr std::size_t kBitReadSize = 5;          // bit count (4), channel
constexpr std::size_t kBitWriteReadTail = 9;     // two bit counts, channel
constexpr std::size_t kBlockWriteHead = 9;       // channel, size (2), count (2), interval (4)
constexpr std::size_t kBlockReadSize = 9;        // size, count, interval, channel
constexpr std::size_t kBlockWriteReadHead = 11;  // two sizes, count, interval, channel
constexpr std::size_t kFlashInitMin = 18;        // sizes, six empty sequences, four bytes
constexpr std::size_t kFlashWriteHead = 4;       // page address
constexpr std::size_t kFlashReadSize = 8;        // page address, two unused bytes, length
constexpr std::size_t kMicrowireInitSize = 16;
constexpr std::size_t kMicrowireWriteHead = 10;  // channel (4), address (4), word count (2)
constexpr std::size_t kMicrowireReadSize = 10;
constexpr std::size_t kSlaveLoadMin = 1;

constexpr uint8_t kMaxControlMode = proto::spi::kMaxControlMode;
constexpr std::size_t kSlaveCollectMax = proto::spi::kSlaveReadMax;

constexpr int kFlashChannel = 0;
constexpr int kLoopbackChannel = 1;

uint64_t bits_of(std::size_t bytes) {
    return uint64_t{bytes} * 8;
}

// The time `bits` bits take on the wire at `hz`, rounded up to whole microseconds.
uint64_t bus_us(uint64_t bits, uint32_t hz) {
    return hz == 0 ? 0 : (bits * 1000000 + hz - 1) / hz;
}

uint8_t reversed(uint8_t b) {
    b = static_cast<uint8_t>((b & 0xF0) >> 4 | (b & 0x0F) << 4);
    b = static_cast<uint8_t>((b & 0xCC) >> 2 | (b & 0x33) << 2);
    return static_cast<uint8_t>((b & 0xAA) >> 1 | (b & 0x55) << 1);
}

}  // namespace

SpiEngine::SpiEngine(Port& port) : port_(port), time_(port) {
    attach_defaults();
}

SpiEngine::~SpiEngine() = default;

std::span<const Route> SpiEngine::routes() const {
    // A refused read also drops the read data waiting for its data request, as a failed one does.
    constexpr Handler kDrop = handler<&SpiEngine::drop_pending>();
    static constexpr Refusal kSetup = Refusal::with_status(MSG_SPI_NINT_ERROR);
    static constexpr Refusal kWrite = Refusal::with_status(MSG_SPI_WRITE_DATA_ERROR);
    static constexpr Refusal kRead = Refusal::with_status(MSG_SPI_READ_DATA_ERROR).also_run(kDrop);
    static constexpr Refusal kWriteRead = Refusal::with_status(MSG_SPI_WRITE_READ_DATA_ERROR).also_run(kDrop);
    static constexpr Route kRoutes[] = {
        route<&SpiEngine::configure>(MSG_KD_REQUEST_SET_SPI_INFORMATION, Sizes::exactly(kConfigSize), kSetup),
        route<&SpiEngine::configure>(MSG_KD_REQUEST_SET_SPI_INFORMATION_EX, Sizes::exactly(kConfigExSize),
                                     kSetup),
        route<&SpiEngine::write>(MSG_KD_REQUEST_SPI_DATAS_TRAN, Sizes::at_least(kWriteTail), kWrite),
        route<&SpiEngine::read>(MSG_KD_REQUEST_SPI_DATAS_READ, Sizes::exactly(kReadSize), kRead),
        route<&SpiEngine::write_read>(MSG_KD_REQUEST_SPI_DATAS_TRAN_REC, Sizes::at_least(kWriteReadTail),
                                      kWriteRead),
        route<&SpiEngine::write_read>(MSG_KD_REQUEST_SPI_DATAS_LONG_TRAN_REC,
                                      Sizes::at_least(kLongWriteReadTail), kWriteRead),
        route<&SpiEngine::fetch>(MSG_KD_REQUEST_SPI_DATAS_REC),
        route<&SpiEngine::fetch>(MSG_KD_REQUEST_SPI_DATAS_LONG_TRAN_READ_REQUEST),
        route<&SpiEngine::write_bits>(MSG_KD_REQUEST_SPI_BIN_DATAS_TRAN, Sizes::at_least(kBitWriteTail),
                                      kWrite),
        route<&SpiEngine::read_bits>(MSG_KD_REQUEST_SPI_BIN_DATAS_READ, Sizes::exactly(kBitReadSize), kRead),
        route<&SpiEngine::write_read_bits>(MSG_KD_REQUEST_SPI_BIN_TRAN_REC,
                                           Sizes::at_least(kBitWriteReadTail), kWriteRead),
        route<&SpiEngine::slave_collect>(MSG_KD_SLAVE_GET_SPI_DATA),
        route<&SpiEngine::slave_load>(MSG_KD_SLAVE_SEND_SPI_DATA, Sizes::at_least(kSlaveLoadMin), kWrite),
        route<&SpiEngine::flash_init>(MSG_KD_FLASH_INIT, Sizes::at_least(kFlashInitMin), kSetup),
        route<&SpiEngine::flash_write>(MSG_KD_FLASH_WRITE_DATA, Sizes::at_least(kFlashWriteHead), kWrite),
        route<&SpiEngine::flash_read>(MSG_KD_FLASH_READ_DATA, Sizes::exactly(kFlashReadSize), kRead),
        route<&SpiEngine::block_write>(MSG_KD_REQUEST_SPI_BLOCK_WRITE, Sizes::at_least(kBlockWriteHead),
                                       kWrite),
        route<&SpiEngine::block_read>(MSG_KD_REQUEST_SPI_BLOCK_READ, Sizes::exactly(kBlockReadSize), kRead),
        route<&SpiEngine::block_write_read>(MSG_KD_REQUEST_SPI_BLOCK_WRITE_READ,
                                            Sizes::at_least(kBlockWriteReadHead), kWriteRead),
        route<&SpiEngine::microwire_init>(MSG_KD_REQUEST_MW_INIT, Sizes::exactly(kMicrowireInitSize), kSetup),
        route<&SpiEngine::microwire_write>(MSG_KD_REQUEST_MW_WRITE_DATA, Sizes::at_least(kMicrowireWriteHead),
                                           kWrite),
        route<&SpiEngine::microwire_read>(MSG_KD_REQUEST_MW_READ_DATA, Sizes::exactly(kMicrowireReadSize),
                                          kRead),
        route<&SpiEngine::fetch>(MSG_KD_REQUEST_MW_DATAS_REC),
    };
    return kRoutes;
}

// ---- Time and answers

uint64_t SpiEngine::part_time() {
    return time_.now();
}

uint64_t SpiEngine::begin() {
    return std::max(part_time(), free_at_);
}

void SpiEngine::at(uint64_t t, std::function<void()> fn) {
    const uint64_t now = part_time();
    if (!port_.clock_on() || t <= now) {
        fn();
        return;
    }
    port_.schedule_in(t - now, std::move(fn));
}

void SpiEngine::answer_read(std::optional<Bytes> data, uint64_t due, uint8_t ok, uint8_t error,
                            uint32_t fetch_code) {
    pending_.reset();
    if (!data) {
        port_.status(error);
        return;
    }
    if (!data->empty()) pending_ = Pending{std::move(*data), due, fetch_code};
    port_.status(ok);
}

// The data request: the read data, once the work that produces it is done. A data request with
// nothing waiting, or of another kind than the read asked for, gets no answer.
void SpiEngine::fetch(Request& r) {
    if (!pending_ || pending_->fetch_code != r.code) return;
    Pending p = std::move(*pending_);
    pending_.reset();
    at(p.due, [this, data = std::move(p.data)]() mutable { port_.raw(std::move(data)); });
}

// ---- Configuration

const SpiConfig* SpiEngine::config(int index) const {
    return index >= 0 && index < kSpiChannels ? &channels_[static_cast<std::size_t>(index)].config : nullptr;
}

// 1280: ControlMode, CPOL, CPHA, MasterMode, TranBits, LSBFirst, SelPolarity, ClockSpeed (4), for
// every channel. 1318: the channel, then the same fields, for that channel. A value out of range
// changes nothing. A new configuration of channel 0, whose mode decides slave mode, empties the
// slave buffers.
void SpiEngine::configure(Request& r) {
    const bool one = r.code == MSG_KD_REQUEST_SET_SPI_INFORMATION_EX;
    const uint8_t index = one ? r.in.u8() : 0;
    SpiConfig c;
    c.configured = true;
    c.control_mode = r.in.u8();
    c.cpol = r.in.u8();
    c.cpha = r.in.u8();
    c.master_mode = r.in.u8();
    c.tran_bits = r.in.u8();
    c.lsb_first = r.in.u8();
    c.sel_polarity = r.in.u8();
    c.clock_hz = r.in.be32();
    const uint32_t max_hz = one ? proto::spi::kMaxClockHzEx : proto::spi::kMaxClockHz;
    if (index >= kSpiChannels || c.control_mode > kMaxControlMode || c.cpol > 1 || c.cpha > 1 ||
        c.master_mode > 1 || c.tran_bits < proto::spi::kMinTranBits ||
        c.tran_bits > proto::spi::kMaxTranBits || c.lsb_first > 1 || c.sel_polarity > 1 ||
        c.clock_hz < proto::spi::kMinClockHz || c.clock_hz > max_hz) {
        port_.status(MSG_SPI_NINT_ERROR);
        return;
    }
    for (int i = 0; i < kSpiChannels; ++i)
        if (!one || i == index) channels_[static_cast<std::size_t>(i)].config = c;
    if (index == 0) {
        slave_out_.clear();
        slave_out_taken_ = 0;
        slave_in_.clear();
    }
    port_.status(MSG_SPI_NINT_OK);
}

// ---- The bus

SpiEngine::Channel* SpiEngine::master(uint8_t index) {
    if (index >= kSpiChannels) return nullptr;
    Channel& ch = channels_[index];
    return ch.config.master_mode != 0 ? &ch : nullptr;
}

bool SpiEngine::slave() const {
    return channels_[0].config.master_mode == 0;
}

void SpiEngine::clock_through(const Wiring& w, std::span<const uint8_t> out, std::size_t out_bits,
                              std::span<uint8_t> in, std::size_t in_bits, uint64_t& t) {
    const uint64_t start = t;
    t += bus_us(out_bits + in_bits, w.clock_hz);
    if (w.part == nullptr) {  // nobody drives MISO: it floats high
        std::fill_n(in.begin(), in_bits / 8, uint8_t{0xFF});
        for (std::size_t k = in_bits / 8 * 8; k < in_bits; ++k) set_bit(in, k);
        return;
    }
    Bytes swapped;
    if (w.lsb_first) {
        swapped.assign(out.begin(), out.end());
        for (uint8_t& b : swapped) b = reversed(b);
        out = swapped;
    }
    w.part->select(start);
    w.part->write(out, out_bits);
    w.part->read(in, in_bits);
    w.part->deselect(t);
    if (w.lsb_first)
        for (uint8_t& b : in) b = reversed(b);
}

std::optional<Bytes> SpiEngine::exchange(uint8_t index, std::span<const uint8_t> out, std::size_t out_bits,
                                         std::size_t in_bits, bool bytes, uint64_t& t) {
    Channel* ch = master(index);
    if (ch == nullptr) return std::nullopt;
    Bytes in((in_bits + 7) / 8);
    clock_through(Wiring{ch->part.get(), ch->config.clock_hz, bytes && ch->config.lsb_first != 0}, out,
                  out_bits, in, in_bits, t);
    return in;
}

// `count` transfers of one block each, `interval_us` apart (from the end of one to the start of
// the next): the blocks written back to back in `out`, the blocks read back to back in the result.
std::optional<Bytes> SpiEngine::blocks(uint8_t index, std::span<const uint8_t> out, std::size_t write_size,
                                       std::size_t read_size, uint16_t count, uint32_t interval_us,
                                       uint64_t& t) {
    if (master(index) == nullptr || count == 0) return std::nullopt;
    Bytes all;
    all.reserve(read_size * count);
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0) t += interval_us;
        const auto block = out.subspan(i * write_size, write_size);
        const Bytes in = *exchange(index, block, bits_of(write_size), bits_of(read_size), true, t);
        all.insert(all.end(), in.begin(), in.end());
    }
    return all;
}

// ---- Byte transfers

// The data, then the channel.
void SpiEngine::write(Request& r) {
    const auto data = r.in.bytes(r.in.remaining() - kWriteTail);
    const uint8_t index = r.in.u8();
    uint64_t t = begin();
    const bool ok = exchange(index, data, bits_of(data.size()), 0, true, t).has_value();
    finish(t);
    port_.status(ok ? MSG_SPI_WRITE_DATA_OK : MSG_SPI_WRITE_DATA_ERROR);
}

// Length (2), channel.
void SpiEngine::read(Request& r) {
    const uint16_t len = r.in.be16();
    const uint8_t index = r.in.u8();
    uint64_t t = begin();
    auto data = exchange(index, {}, 0, bits_of(len), true, t);
    finish(t);
    answer_read(std::move(data), t, MSG_SPI_READ_DATA_OK, MSG_SPI_READ_DATA_ERROR,
                MSG_KD_REQUEST_SPI_DATAS_REC);
}

// The data to write, the read length (2 bytes, or 4 for the long form), the channel: the write
// phase, then the read phase, in one chip-select assertion.
void SpiEngine::write_read(Request& r) {
    const bool long_form = r.code == MSG_KD_REQUEST_SPI_DATAS_LONG_TRAN_REC;
    const auto data = r.in.bytes(r.in.remaining() - (long_form ? kLongWriteReadTail : kWriteReadTail));
    const uint32_t len = long_form ? r.in.be32() : r.in.be16();
    const uint8_t index = r.in.u8();
    uint64_t t = begin();
    std::optional<Bytes> in;
    if (len <= kSpiReadMax) in = exchange(index, data, bits_of(data.size()), bits_of(len), true, t);
    finish(t);
    answer_read(std::move(in), t, MSG_SPI_WRITE_READ_DATA_OK, MSG_SPI_WRITE_READ_DATA_ERROR,
                long_form ? MSG_KD_REQUEST_SPI_DATAS_LONG_TRAN_READ_REQUEST : MSG_KD_REQUEST_SPI_DATAS_REC);
}

// ---- Bit transfers: the bits packed first bit first, as many bytes as they fill, then the counts.

namespace {

// The packed write bits and their count at the front of a request; null when the count does not
// match the bytes that carry it.
struct PackedBits {
    std::span<const uint8_t> bytes;
    uint32_t count = 0;
};
std::optional<PackedBits> packed_bits(proto::Reader& in, std::size_t tail) {
    PackedBits p;
    p.bytes = in.bytes(in.remaining() - tail);
    p.count = in.be32();
    if ((uint64_t{p.count} + 7) / 8 != p.bytes.size()) return std::nullopt;
    return p;
}

bool readable_bits(uint32_t count) {
    return count <= static_cast<uint32_t>(proto::spi::kReadBitsMax);
}

}  // namespace

// Packed bits, bit count (4), channel.
void SpiEngine::write_bits(Request& r) {
    const auto bits = packed_bits(r.in, kBitWriteTail);
    const uint8_t index = r.in.u8();
    uint64_t t = begin();
    const bool ok = bits && exchange(index, bits->bytes, bits->count, 0, false, t).has_value();
    finish(t);
    port_.status(ok ? MSG_SPI_WRITE_DATA_OK : MSG_SPI_WRITE_DATA_ERROR);
}

// Bit count (4), channel.
void SpiEngine::read_bits(Request& r) {
    const uint32_t count = r.in.be32();
    const uint8_t index = r.in.u8();
    uint64_t t = begin();
    std::optional<Bytes> in;
    if (readable_bits(count)) in = exchange(index, {}, 0, count, false, t);
    finish(t);
    answer_read(std::move(in), t, MSG_SPI_READ_DATA_OK, MSG_SPI_READ_DATA_ERROR,
                MSG_KD_REQUEST_SPI_DATAS_REC);
}

// Packed write bits, write bit count (4), read bit count (4), channel.
void SpiEngine::write_read_bits(Request& r) {
    const auto bits = packed_bits(r.in, kBitWriteReadTail);
    const uint32_t count = r.in.be32();
    const uint8_t index = r.in.u8();
    uint64_t t = begin();
    std::optional<Bytes> in;
    if (bits && readable_bits(count)) in = exchange(index, bits->bytes, bits->count, count, false, t);
    finish(t);
    answer_read(std::move(in), t, MSG_SPI_WRITE_READ_DATA_OK, MSG_SPI_WRITE_READ_DATA_ERROR,
                MSG_KD_REQUEST_SPI_DATAS_REC);
}

// ---- Block transfers: IntervalTime in microseconds.

// Channel, block size (2), block count (2), interval (4), the blocks.
void SpiEngine::block_write(Request& r) {
    const uint8_t index = r.in.u8();
    const uint16_t size = r.in.be16();
    const uint16_t count = r.in.be16();
    const uint32_t interval = r.in.be32();
    const auto data = r.in.rest();
    uint64_t t = begin();
    const bool ok =
        data.size() == std::size_t{size} * count && blocks(index, data, size, 0, count, interval, t);
    finish(t);
    port_.status(ok ? MSG_SPI_WRITE_DATA_OK : MSG_SPI_WRITE_DATA_ERROR);
}

// Block size (2), block count (2), interval (4), channel.
void SpiEngine::block_read(Request& r) {
    const uint16_t size = r.in.be16();
    const uint16_t count = r.in.be16();
    const uint32_t interval = r.in.be32();
    const uint8_t index = r.in.u8();
    uint64_t t = begin();
    std::optional<Bytes> in;
    if (std::size_t{size} * count <= static_cast<std::size_t>(proto::spi::kBlockReadMax))
        in = blocks(index, {}, 0, size, count, interval, t);
    finish(t);
    answer_read(std::move(in), t, MSG_SPI_READ_DATA_OK, MSG_SPI_READ_DATA_ERROR,
                MSG_KD_REQUEST_SPI_DATAS_REC);
}

// Write block size (2), read block size (2), block count (2), interval (4), channel, the blocks
// to write. Each block is written, then read, in one chip-select assertion.
void SpiEngine::block_write_read(Request& r) {
    const uint16_t write_size = r.in.be16();
    const uint16_t read_size = r.in.be16();
    const uint16_t count = r.in.be16();
    const uint32_t interval = r.in.be32();
    const uint8_t index = r.in.u8();
    const auto data = r.in.rest();
    uint64_t t = begin();
    std::optional<Bytes> in;
    if (data.size() == std::size_t{write_size} * count && std::size_t{read_size} * count <= kSpiReadMax)
        in = blocks(index, data, write_size, read_size, count, interval, t);
    finish(t);
    answer_read(std::move(in), t, MSG_SPI_WRITE_READ_DATA_OK, MSG_SPI_WRITE_READ_DATA_ERROR,
                MSG_KD_REQUEST_SPI_DATAS_REC);
}

// ---- Slave mode

// The bytes to clock out to the external master: they replace whatever was loaded before.
void SpiEngine::slave_load(Request& r) {
    if (!slave()) {
        port_.status(MSG_SPI_WRITE_DATA_ERROR);
        return;
    }
    const auto data = r.in.rest();
    slave_out_.assign(data.begin(), data.end());
    slave_out_taken_ = 0;
    port_.status(MSG_SPI_WRITE_DATA_OK);
}

// What the external master clocked in since the last collect, raw, at most what the host's
// buffer takes (the rest waits for the next collect); nothing at all when it clocked nothing.
void SpiEngine::slave_collect() {
    if (slave_in_.empty()) return;
    const std::size_t n = std::min(slave_in_.size(), kSlaveCollectMax);
    port_.raw(Bytes(slave_in_.begin(), slave_in_.begin() + static_cast<std::ptrdiff_t>(n)));
    slave_in_.erase(slave_in_.begin(), slave_in_.begin() + static_cast<std::ptrdiff_t>(n));
}

std::optional<Bytes> SpiEngine::external_transfer(std::span<const uint8_t> bytes) {
    if (!slave()) return std::nullopt;
    Bytes out;
    out.reserve(bytes.size());
    for (uint8_t b : bytes) {
        out.push_back(slave_out_taken_ < slave_out_.size() ? slave_out_[slave_out_taken_++] : 0xFF);
        slave_in_.push_back(b);
    }
    return out;
}

// ---- Parts

SpiTarget* SpiEngine::part(int index) {
    return index >= 0 && index < kSpiChannels ? channels_[static_cast<std::size_t>(index)].part.get()
                                              : nullptr;
}

void SpiEngine::detach(int index) {
    if (index >= 0 && index < kSpiChannels) channels_[static_cast<std::size_t>(index)].part.reset();
}

void SpiEngine::attach_defaults() {
    auto& flash = channels_[kFlashChannel].part;
    if (flash == nullptr)
        flash = std::make_unique<SerialFlash>(port_.nv("spi-flash.bin", SerialFlash::kSize));
    auto& loopback = channels_[kLoopbackChannel].part;
    if (loopback == nullptr) loopback = std::make_unique<SpiLoopback>();
    if (microwire_ == nullptr)
        microwire_ =
            std::make_unique<MicrowireEeprom>(port_.nv("microwire-eeprom.bin", MicrowireEeprom::kBytes));
}

std::unique_ptr<Engine> make_spi_engine(Port& port) {
    if (port.identity().personality != proto::kDevTypeSpi) return nullptr;
    return std::make_unique<SpiEngine>(port);
}

}  // namespace corvel::sim::fw
