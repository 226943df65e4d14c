// The SPI engine's memory engines: the serial-flash engine and the Microwire engine. Both run the
// command sequences of the description the host gave, on the wire, as the adapter's firmware
// does: a wrong description fails as it would with the real part.
#include <algorithm>

#include "CorvelMsg.h"
#include "firmware/spi_engine.hpp"

namespace corvel::sim::fw {
namespace {

// How long the flash engine waits for the chip to be ready before it gives up (longer than any
// operation of the simulated chip, shorter than the host's 3 s wait for the write's status), and
// the pause between two status reads.
constexpr uint64_t kFlashBusyTimeoutUs = 2500000;
constexpr uint64_t kFlashPollGapUs = 50;

// Microwire is clocked at 1 MHz; the engine waits up to 50 ms for a programming cycle to end.
constexpr uint32_t kMicrowireHz = 1000000;
constexpr uint64_t kMicrowireBusyTimeoutUs = 50000;
constexpr uint64_t kMicrowirePollGapUs = 50;
constexpr uint8_t kMicrowireOrgWords = 1;  // ORG high: 16-bit words
constexpr uint8_t kMicrowireMinAddrBits = 2;
constexpr uint8_t kMicrowireMaxAddrBits = 16;
constexpr std::size_t kMicrowireOpcodeBits = 2;
constexpr std::size_t kWordBits = 16;

constexpr uint8_t kMaxAddrBytes = 4;
constexpr uint8_t kMaxAddrShift = 31;
constexpr uint8_t kMaxBusyBit = 7;

// Bits appended most significant first.
struct BitString {
    Bytes bytes;
    std::size_t bits = 0;
    void push(uint32_t value, std::size_t n) {
        for (std::size_t i = n; i-- > 0;) {
            if (bits % 8 == 0) bytes.push_back(0);
            if ((value >> i) & 1) set_bit(bytes, bits);
            ++bits;
        }
    }
};

}  // namespace

// ---- Flash engine: channel 0, with channel 0's configuration.

std::optional<SpiEngine::Wiring> SpiEngine::flash_wiring() {
    Channel* ch = master(0);
    if (ch == nullptr) return std::nullopt;
    return Wiring{ch->part.get(), ch->config.clock_hz, ch->config.lsb_first != 0};
}

// One command: its sequence, the address of `page` if given (PageAddr << addr_shift, its low
// addr_bytes bytes, most significant first), the data; then in.size() bytes read.
void SpiEngine::flash_command(const Wiring& w, const Sequence& command, std::optional<uint64_t> page,
                              std::span<const uint8_t> data, std::span<uint8_t> in, uint64_t& t) {
    const FlashDescription& d = *flash_;
    Bytes out(command.view().begin(), command.view().end());
    if (page) {
        const uint64_t address = *page << d.addr_shift;
        for (std::size_t i = d.addr_bytes; i-- > 0;) out.push_back(static_cast<uint8_t>(address >> (8 * i)));
    }
    out.insert(out.end(), data.begin(), data.end());
    clock_through(w, out, out.size() * 8, in, in.size() * 8, t);
}

// Reads the status until the busy bit (bit busy_bit of status AND busy_mask) is clear. False when
// it is still set after the time-out.
bool SpiEngine::flash_ready(const Wiring& w, uint64_t& t) {
    const FlashDescription& d = *flash_;
    const uint64_t give_up = t + kFlashBusyTimeoutUs;
    for (;;) {
        std::array<uint8_t, 1> status{};
        flash_command(w, d.read_status, std::nullopt, {}, status, t);
        if ((((status[0] & d.busy_mask) >> d.busy_bit) & 1) == 0) return true;
        if (t >= give_up) return false;
        t += kFlashPollGapUs;
    }
}

// Page size (4), page count (4), the six sequences write_enable, read_status, chip_erase,
// write_data, read_data, first_cmd (each a count and that many bytes, at most seven), busy_bit,
// busy_mask, addr_bytes, addr_shift. Bytes after them are ignored. first_cmd, if any, goes out on
// channel 0 once the description is taken.
void SpiEngine::flash_init(Request& r) {
    FlashDescription d;
    d.page_size = r.in.be32();
    d.page_num = r.in.be32();
    for (Sequence* s :
         {&d.write_enable, &d.read_status, &d.chip_erase, &d.write_data, &d.read_data, &d.first_cmd}) {
        s->count = std::min<std::size_t>(r.in.u8(), s->bytes.size());
        const auto bytes = r.in.bytes(s->count);
        std::copy(bytes.begin(), bytes.end(), s->bytes.begin());
    }
    d.busy_bit = r.in.u8();
    d.busy_mask = r.in.u8();
    d.addr_bytes = r.in.u8();
    d.addr_shift = r.in.u8();
    if (!r.in.ok() || d.page_size == 0 || d.page_num == 0 || d.busy_bit > kMaxBusyBit ||
        d.addr_bytes > kMaxAddrBytes || d.addr_shift > kMaxAddrShift) {
        port_.status(MSG_SPI_NINT_ERROR);
        return;
    }
    flash_ = d;
    if (const auto w = flash_wiring(); w && d.first_cmd.count > 0) {
        uint64_t t = begin();
        flash_command(*w, d.first_cmd, std::nullopt, {}, {}, t);
        finish(t);
    }
    port_.status(MSG_SPI_NINT_OK);
}

// Page by page from `page`: write enable, write data with the page's address and up to page_size
// bytes, then the busy poll. No data: write enable, chip erase, busy poll. The engine never
// erases on its own: programming only clears bits, so the host erases first.
bool SpiEngine::run_flash_write(uint32_t page, std::span<const uint8_t> data, uint64_t& t) {
    const auto w = flash_wiring();
    if (!flash_ || !w) return false;
    const FlashDescription& d = *flash_;
    if (data.empty()) {
        flash_command(*w, d.write_enable, std::nullopt, {}, {}, t);
        flash_command(*w, d.chip_erase, std::nullopt, {}, {}, t);
        return flash_ready(*w, t);
    }
    const uint64_t pages = (data.size() + d.page_size - 1) / d.page_size;
    if (page >= d.page_num || pages > d.page_num - page) return false;
    for (uint64_t i = 0; i < pages; ++i) {
        const auto chunk =
            data.subspan(i * d.page_size, std::min<std::size_t>(d.page_size, data.size() - i * d.page_size));
        flash_command(*w, d.write_enable, std::nullopt, {}, {}, t);
        flash_command(*w, d.write_data, page + i, chunk, {}, t);
        if (!flash_ready(*w, t)) return false;
    }
    return true;
}

// Read data with the page's address, then `len` bytes, in one chip-select assertion.
std::optional<Bytes> SpiEngine::run_flash_read(uint32_t page, uint16_t len, uint64_t& t) {
    const auto w = flash_wiring();
    if (!flash_ || !w) return std::nullopt;
    const FlashDescription& d = *flash_;
    if (page >= d.page_num || (uint64_t{len} + d.page_size - 1) / d.page_size > d.page_num - page)
        return std::nullopt;
    Bytes in(len);
    flash_command(*w, d.read_data, page, {}, in, t);
    return in;
}

// Page address (4), then the data. Answered when the work is done: the status says how it went.
void SpiEngine::flash_write(Request& r) {
    const uint32_t page = r.in.be32();
    const auto data = r.in.rest();
    uint64_t t = begin();
    const uint8_t status = run_flash_write(page, data, t) ? MSG_SPI_WRITE_DATA_OK : MSG_SPI_WRITE_DATA_ERROR;
    finish(t);
    at(t, [this, status] { port_.status(status); });
}

// Page address (4), two unused bytes, length (2).
void SpiEngine::flash_read(Request& r) {
    const uint32_t page = r.in.be32();
    r.in.skip(2);
    const uint16_t len = r.in.be16();
    uint64_t t = begin();
    auto data = run_flash_read(page, len, t);
    finish(t);
    answer_read(std::move(data), t, MSG_SPI_READ_DATA_OK, MSG_SPI_READ_DATA_ERROR,
                MSG_KD_REQUEST_SPI_DATAS_REC);
}

// ---- Microwire engine

SpiEngine::Wiring SpiEngine::microwire_wiring(uint32_t index) {
    return Wiring{index == 0 ? microwire_.get() : nullptr, kMicrowireHz, false};
}

// One instruction: the start bit, the opcode, the address, the data word if any.
void SpiEngine::microwire_frame(const Wiring& w, const MicrowireDescription& d, uint8_t opcode,
                                uint32_t address, std::optional<uint16_t> data, uint64_t& t) {
    BitString out;
    out.push(d.start, 1);
    out.push(opcode, kMicrowireOpcodeBits);
    out.push(address, d.addr_bits);
    if (data) out.push(*data, kWordBits);
    clock_through(w, out.bytes, out.bits, {}, 0, t);
}

// A control instruction: the control opcode, with the command in the address's two top bits.
void SpiEngine::microwire_control(const Wiring& w, const MicrowireDescription& d, uint8_t command,
                                  uint64_t& t) {
    microwire_frame(w, d, d.control, uint32_t{command} << (d.addr_bits - 2), std::nullopt, t);
}

// Chip select up again after a programming instruction: DO low while the part is busy.
bool SpiEngine::microwire_ready(const Wiring& w, uint64_t& t) {
    const uint64_t give_up = t + kMicrowireBusyTimeoutUs;
    for (;;) {
        std::array<uint8_t, 1> level{};
        clock_through(w, {}, 0, level, 1, t);
        if (level[0] != 0) return true;
        if (t >= give_up) return false;
        t += kMicrowirePollGapUs;
    }
}

// ERASE_ALL, EW_DISABLE, EW_ENABLE, WRITE_ALL, CONTROL, ERASE, READ, WRITE (each the bits the
// engine sends: the low two), address bits (the low byte of MWAddr), channel, size in words (4),
// start bit, ORG. Only word organisation (ORG 1) is spoken.
void SpiEngine::microwire_init(Request& r) {
    MicrowireDescription d;
    d.erase_all = r.in.u8();
    d.ew_disable = r.in.u8();
    d.ew_enable = r.in.u8();
    d.write_all = r.in.u8();
    d.control = r.in.u8();
    d.erase = r.in.u8();
    d.read = r.in.u8();
    d.write = r.in.u8();
    d.addr_bits = r.in.u8();
    const uint8_t index = r.in.u8();
    d.size = r.in.be32();
    d.start = r.in.u8() & 1;
    const uint8_t org = r.in.u8();
    if (index >= kMicrowireChannels || org != kMicrowireOrgWords || d.addr_bits < kMicrowireMinAddrBits ||
        d.addr_bits > kMicrowireMaxAddrBits || d.size == 0 || d.size > (uint32_t{1} << d.addr_bits)) {
        port_.status(MSG_SPI_NINT_ERROR);
        return;
    }
    for (uint8_t* op :
         {&d.erase_all, &d.ew_disable, &d.ew_enable, &d.write_all, &d.control, &d.erase, &d.read, &d.write})
        *op &= 3;
    microwire_descriptions_[index] = d;
    port_.status(MSG_SPI_NINT_OK);
}

// EWEN, then each word as WRITE and a wait for the end of its cycle, then EWDS: the engine opens
// and closes the part's write enable around every write it makes. No words: EWEN, ERAL, wait, EWDS.
bool SpiEngine::run_microwire_write(uint32_t index, uint32_t address, std::span<const uint8_t> words,
                                    uint64_t& t) {
    if (index >= kMicrowireChannels || !microwire_descriptions_[index]) return false;
    const MicrowireDescription& d = *microwire_descriptions_[index];
    const std::size_t count = words.size() / 2;
    if (uint64_t{address} + count > d.size) return false;
    const Wiring w = microwire_wiring(index);
    microwire_control(w, d, d.ew_enable, t);
    bool ok = true;
    if (count == 0) {
        microwire_control(w, d, d.erase_all, t);
        ok = microwire_ready(w, t);
    }
    for (std::size_t i = 0; i < count && ok; ++i) {
        const auto word = static_cast<uint16_t>(words[2 * i] << 8 | words[2 * i + 1]);
        microwire_frame(w, d, d.write, static_cast<uint32_t>(address + i), word, t);
        ok = microwire_ready(w, t);
    }
    microwire_control(w, d, d.ew_disable, t);
    return ok;
}

// READ at the address, then the dummy bit and `len` words in one chip-select assertion.
std::optional<Bytes> SpiEngine::run_microwire_read(uint32_t index, uint32_t address, uint16_t len,
                                                   uint64_t& t) {
    if (index >= kMicrowireChannels || !microwire_descriptions_[index]) return std::nullopt;
    const MicrowireDescription& d = *microwire_descriptions_[index];
    if (uint64_t{address} + len > d.size) return std::nullopt;
    const Wiring w = microwire_wiring(index);
    BitString out;
    out.push(d.start, 1);
    out.push(d.read, kMicrowireOpcodeBits);
    out.push(address, d.addr_bits);
    const std::size_t bits = 1 + kWordBits * len;
    Bytes in((bits + 7) / 8);
    clock_through(w, out.bytes, out.bits, in, bits, t);
    Bytes words(2 * std::size_t{len});
    for (std::size_t k = 0; k + 1 < bits; ++k)
        if (bit_at(in, k + 1)) set_bit(words, k);
    return words;
}

// Channel (4), word address (4), word count (2), the words most significant byte first. Answered
// when the writes are done.
void SpiEngine::microwire_write(Request& r) {
    const uint32_t index = r.in.be32();
    const uint32_t address = r.in.be32();
    const uint16_t len = r.in.be16();
    const auto words = r.in.rest();
    uint64_t t = begin();
    const bool ok = words.size() == 2 * std::size_t{len} && run_microwire_write(index, address, words, t);
    finish(t);
    const uint8_t status = ok ? MSG_SPI_WRITE_DATA_OK : MSG_SPI_WRITE_DATA_ERROR;
    at(t, [this, status] { port_.status(status); });
}

// Channel (4), word address (4), word count (2). The data, 2 x count bytes, go after the Microwire
// data request.
void SpiEngine::microwire_read(Request& r) {
    const uint32_t index = r.in.be32();
    const uint32_t address = r.in.be32();
    const uint16_t len = r.in.be16();
    uint64_t t = begin();
    auto data = run_microwire_read(index, address, len, t);
    finish(t);
    answer_read(std::move(data), t, MSG_SPI_READ_DATA_OK, MSG_SPI_READ_DATA_ERROR,
                MSG_KD_REQUEST_MW_DATAS_REC);
}

}  // namespace corvel::sim::fw
