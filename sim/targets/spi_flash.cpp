#include "targets/spi_flash.hpp"

#include <algorithm>

namespace corvel::sim::fw {
namespace {

enum Command : uint8_t {
    kJedecIdRead = 0x9F,
    kStatusRead = 0x05,
    kWriteEnable = 0x06,
    kWriteDisable = 0x04,
    kRead = 0x03,
    kFastRead = 0x0B,
    kPageProgram = 0x02,
    kSectorErase = 0x20,
    kBlockErase = 0xD8,
    kChipErase = 0xC7,
    kChipEraseAlt = 0x60,
    kPowerDown = 0xB9,
    kReleasePowerDown = 0xAB,
};

constexpr std::size_t kAddressEnd = 4;  // command byte and three address bytes

}  // namespace

void SerialFlash::settle(uint64_t at_us) {
    if (busy_ && at_us >= busy_until_) {
        busy_ = false;
        write_enabled_ = false;
    }
}

uint8_t SerialFlash::status(uint64_t at_us) {
    settle(at_us);
    return static_cast<uint8_t>((busy_ ? kBusy : 0) | (write_enabled_ ? kWriteEnabled : 0));
}

void SerialFlash::select(uint64_t at_us) {
    ByteTarget::select(at_us);
    settle(at_us);
    ignored_ = false;
    command_ = 0;
    count_ = 0;
    addr_ = 0;
}

uint8_t SerialFlash::shift_out() {
    if (count_ == 0 || ignored_) return 0xFF;
    switch (command_) {
        case kJedecIdRead:
            return kJedecId[(count_ - 1) % kJedecId.size()];
        case kStatusRead:
            return static_cast<uint8_t>((busy_ ? kBusy : 0) | (write_enabled_ ? kWriteEnabled : 0));
        case kRead:
        case kFastRead: {
            const std::size_t first = command_ == kRead ? kAddressEnd : kAddressEnd + 1;
            if (count_ < first) return 0xFF;
            return memory_.bytes()[(address() + count_ - first) & (kSize - 1)];
        }
        case kReleasePowerDown:
            return count_ >= kAddressEnd ? kDeviceId : 0xFF;
        default:
            return 0xFF;
    }
}

void SerialFlash::shift_in(uint8_t byte) {
    if (count_ == 0) {
        command_ = byte;
        ignored_ = (busy_ && byte != kStatusRead) || (powered_down_ && byte != kReleasePowerDown);
        if (byte == kPageProgram) page_.fill(0xFF);
    } else if (count_ < kAddressEnd) {
        addr_ = addr_ << 8 | byte;
    } else if (command_ == kPageProgram) {
        page_[(addr_ + count_ - kAddressEnd) % kPageSize] = byte;
    }
    ++count_;
}

void SerialFlash::deselect(uint64_t at_us) {
    if (ignored_ || partial() || count_ == 0) return;
    const bool single = count_ == 1;
    switch (command_) {
        case kWriteEnable:
            if (single) write_enabled_ = true;
            break;
        case kWriteDisable:
            if (single) write_enabled_ = false;
            break;
        case kPowerDown:
            if (single) powered_down_ = true;
            break;
        case kReleasePowerDown:
            powered_down_ = false;
            break;
        case kPageProgram:
            if (!write_enabled_ || count_ <= kAddressEnd) break;
            program();
            start_busy(at_us, kPageProgramUs);
            break;
        case kSectorErase:
        case kBlockErase:
            if (!write_enabled_ || count_ != kAddressEnd) break;
            erase(command_ == kSectorErase ? kSectorSize : kBlockSize);
            start_busy(at_us, command_ == kSectorErase ? kSectorEraseUs : kBlockEraseUs);
            break;
        case kChipErase:
        case kChipEraseAlt:
            if (!write_enabled_ || !single) break;
            erase(kSize);
            start_busy(at_us, kChipEraseUs);
            break;
        default:
            break;
    }
}

void SerialFlash::start_busy(uint64_t at_us, uint64_t duration_us) {
    busy_ = true;
    busy_until_ = at_us + duration_us;
}

void SerialFlash::program() {
    const std::size_t base = address() & ~(kPageSize - 1);
    std::span<uint8_t> cells = memory_.edit(base, kPageSize);
    for (std::size_t i = 0; i < cells.size(); ++i) cells[i] &= page_[i];
    memory_.commit();
    ++programs_;
}

// The sector, block or array that holds the address.
void SerialFlash::erase(std::size_t size) {
    std::span<uint8_t> cells = memory_.edit(address() & ~(size - 1), size);
    std::fill(cells.begin(), cells.end(), memory_.erased());
    memory_.commit();
    ++erases_;
}

void SerialFlash::erase_all() {
    std::span<uint8_t> cells = memory_.edit(0, kSize);
    std::fill(cells.begin(), cells.end(), memory_.erased());
    memory_.commit();
}

}  // namespace corvel::sim::fw
