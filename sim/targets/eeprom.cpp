#include "targets/eeprom.hpp"

namespace corvel::sim::fw {

bool Eeprom::start(bool read) {
    expect_address_ = !read;
    return true;
}

bool Eeprom::write(uint8_t byte) {
    if (expect_address_) {
        pointer_ = byte;
        expect_address_ = false;
        return true;
    }
    if (auto cell = memory_.edit(pointer_, 1); !cell.empty()) {
        cell[0] = byte;
        dirty_ = true;
    }
    const uint8_t page_start = static_cast<uint8_t>(pointer_ & ~(kPage - 1));
    pointer_ = static_cast<uint8_t>(page_start | ((pointer_ + 1) & (kPage - 1)));
    return true;
}

uint8_t Eeprom::read() {
    const Bytes& bytes = memory_.bytes();
    const uint8_t value = pointer_ < bytes.size() ? bytes[pointer_] : memory_.erased();
    pointer_ = static_cast<uint8_t>(pointer_ + 1);  // wraps at 256
    return value;
}

void Eeprom::stop() {
    commit();
    expect_address_ = false;
}

void Eeprom::commit() {
    if (!dirty_) return;
    dirty_ = false;
    memory_.commit();
}

}  // namespace corvel::sim::fw
