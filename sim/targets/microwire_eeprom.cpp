#include "targets/microwire_eeprom.hpp"

namespace corvel::sim::fw {
namespace {

enum Opcode : unsigned { kControl = 0, kWrite = 1, kRead = 2, kErase = 3 };
// The control instructions: the two top address bits.
enum Control : unsigned { kDisable = 0, kWriteAll = 1, kEraseAll = 2, kEnable = 3 };

constexpr unsigned kOpcodeBits = 2;
constexpr unsigned kDataBits = 16;

unsigned control_of(unsigned address) {
    return address >> (MicrowireEeprom::kAddressBits - 2);
}

}  // namespace

void MicrowireEeprom::select(uint64_t at_us) {
    if (busy_ && at_us >= busy_until_) busy_ = false;
    ignored_ = busy_;
    phase_ = Phase::Start;
    opcode_ = address_ = field_bits_ = 0;
    data_ = 0;
    out_bit_ = 0;
}

void MicrowireEeprom::take(bool bit) {
    const unsigned b = bit ? 1 : 0;
    switch (phase_) {
        case Phase::Start:
            if (bit) phase_ = Phase::Opcode;
            break;
        case Phase::Opcode:
            opcode_ = opcode_ << 1 | b;
            if (++field_bits_ == kOpcodeBits) {
                phase_ = Phase::Address;
                field_bits_ = 0;
            }
            break;
        case Phase::Address:
            address_ = address_ << 1 | b;
            if (++field_bits_ < kAddressBits) break;
            field_bits_ = 0;
            if (opcode_ == kRead) {
                phase_ = Phase::Output;
            } else if (opcode_ == kWrite || (opcode_ == kControl && control_of(address_) == kWriteAll)) {
                phase_ = Phase::Data;
            } else {
                phase_ = Phase::Done;
            }
            break;
        case Phase::Data:
            data_ = static_cast<uint16_t>(data_ << 1 | b);
            if (++field_bits_ == kDataBits) phase_ = Phase::Done;
            break;
        case Phase::Output:
        case Phase::Done:
            break;
    }
}

void MicrowireEeprom::write(std::span<const uint8_t> data, std::size_t bits) {
    if (ignored_) return;
    for (std::size_t k = 0; k < bits; ++k) take(bit_at(data, k));
}

void MicrowireEeprom::read(std::span<uint8_t> data, std::size_t bits) {
    for (std::size_t k = 0; k < bits; ++k) {
        bool bit = !busy_;  // not shifting data: DO shows ready (floating high) or busy (low)
        if (!ignored_ && phase_ == Phase::Output) {
            if (out_bit_ > 0) {
                const std::size_t n = out_bit_ - 1;
                bit =
                    ((word((address_ + n / kDataBits) % kWords) >> (kDataBits - 1 - n % kDataBits)) & 1) != 0;
            } else {
                bit = false;  // the dummy bit ahead of the data
            }
            ++out_bit_;
        }
        if (bit) set_bit(data, k);
    }
}

void MicrowireEeprom::deselect(uint64_t at_us) {
    if (ignored_ || phase_ != Phase::Done) return;
    if (opcode_ == kControl) {
        switch (control_of(address_)) {
            case kEnable:
                write_enabled_ = true;
                break;
            case kDisable:
                write_enabled_ = false;
                break;
            case kEraseAll:
                store(0, kWords, 0xFFFF, at_us, kArrayCycleUs);
                break;
            case kWriteAll:
                store(0, kWords, data_, at_us, kArrayCycleUs);
                break;
        }
    } else if (opcode_ == kWrite) {
        store(address_, 1, data_, at_us, kWordCycleUs);
    } else if (opcode_ == kErase) {
        store(address_, 1, 0xFFFF, at_us, kWordCycleUs);
    }
}

uint16_t MicrowireEeprom::word(std::size_t index) const {
    const Bytes& b = memory_.bytes();
    return static_cast<uint16_t>(b[2 * index] << 8 | b[2 * index + 1]);
}

void MicrowireEeprom::store(std::size_t first, std::size_t count, uint16_t value, uint64_t at_us,
                            uint64_t cycle_us) {
    if (!write_enabled_) return;
    std::span<uint8_t> cells = memory_.edit(2 * first, 2 * count);
    for (std::size_t i = 0; i + 1 < cells.size(); i += 2) {
        cells[i] = static_cast<uint8_t>(value >> 8);
        cells[i + 1] = static_cast<uint8_t>(value);
    }
    memory_.commit();
    busy_ = true;
    busy_until_ = at_us + cycle_us;
}

}  // namespace corvel::sim::fw
