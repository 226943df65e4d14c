#include "targets/ds18b20.hpp"

#include <algorithm>
#include <cmath>

namespace corvel::sim::fw {
namespace {

constexpr uint8_t kCrcPolynomial = 0x8C;
constexpr unsigned kRomBits = 64;
constexpr unsigned kScratchpadBits = 72;
constexpr unsigned kCommandBits = 8;
constexpr unsigned kWriteScratchpadBits = 24;
constexpr uint8_t kResolutionBits = 0x60;      // configuration bits 5-6: 9 + R bits
constexpr uint8_t kConfigurationFixed = 0x1F;  // the configuration's bits that read 1 whatever is written
constexpr uint64_t kConversion9BitUs = 93750;  // doubles with each bit of resolution
constexpr double kMinCelsius = -55, kMaxCelsius = 125;

enum : uint8_t {
    kReadRom = 0x33,
    kSkipRom = 0xCC,
    kMatchRom = 0x55,
    kConvertT = 0x44,
    kReadScratchpad = 0xBE,
    kWriteScratchpad = 0x4E,
    kCopyScratchpad = 0x48,
    kRecallE2 = 0xB8,
    kReadPowerSupply = 0xB4,
};

}  // namespace

uint8_t dallas_crc8(const uint8_t* bytes, std::size_t n) {
    uint8_t crc = 0;
    for (std::size_t i = 0; i < n; ++i) {
        crc ^= bytes[i];
        for (int b = 0; b < 8; ++b)
            crc = (crc & 1) ? static_cast<uint8_t>((crc >> 1) ^ kCrcPolynomial) : crc >> 1;
    }
    return crc;
}

std::array<uint8_t, 8> Ds18b20::rom() {
    std::array<uint8_t, 8> r{0x28, 0x43, 0x4F, 0x52, 0x56, 0x45, 0x4C, 0};
    r[7] = dallas_crc8(r.data(), 7);
    return r;
}

void Ds18b20::set_temperature(double celsius) {
    raw_ = static_cast<int16_t>(std::lround(std::clamp(celsius, kMinCelsius, kMaxCelsius) * 16));
}

std::array<uint8_t, 9> Ds18b20::scratchpad(uint64_t now_us) {
    update(now_us);
    return pad();
}

std::array<uint8_t, 9> Ds18b20::pad() const {
    const auto t = static_cast<uint16_t>(temperature_);
    std::array<uint8_t, 9> p{static_cast<uint8_t>(t),
                             static_cast<uint8_t>(t >> 8),
                             user_[0],
                             user_[1],
                             user_[2],
                             0xFF,
                             0x0C,
                             0x10,
                             0};
    p[8] = dallas_crc8(p.data(), 8);
    return p;
}

// A conversion in progress finishes at its time, whenever the sensor is next looked at.
void Ds18b20::update(uint64_t now_us) {
    if (!converting_ || now_us < done_at_) return;
    converting_ = false;
    const int unused = 3 - ((user_[2] & kResolutionBits) >> 5);  // bits below the resolution
    temperature_ = static_cast<int16_t>(raw_ & ~((1 << unused) - 1));
}

void Ds18b20::reset(uint64_t now_us) {
    update(now_us);
    listen(State::RomCommand);
}

bool Ds18b20::slot(bool released, uint64_t now_us) {
    update(now_us);
    const std::array<uint8_t, 8> code = rom();
    switch (state_) {
        case State::Silent:
            return false;
        case State::Converting:
            return converting_;
        case State::SendRom: {
            const bool b = bit_of(code.data(), bits_);
            if (++bits_ == kRomBits) listen(State::Function);
            return !b;
        }
        case State::SendScratchpad: {
            if (bits_ >= kScratchpadBits) return false;
            return !bit_of(out_.data(), bits_++);
        }
        default:
            take(released, now_us);
            return false;
    }
}

void Ds18b20::take(bool bit, uint64_t now_us) {
    const std::array<uint8_t, 8> code = rom();
    if (bit && bits_ < 32) value_ |= 1u << bits_;
    ++bits_;
    switch (state_) {
        case State::RomCommand:
            if (bits_ == kCommandBits) rom_command(static_cast<uint8_t>(value_));
            break;
        case State::MatchRom:
            if (bit != bit_of(code.data(), bits_ - 1))
                listen(State::Silent);
            else if (bits_ == kRomBits)
                listen(State::Function);
            break;
        case State::Function:
            if (bits_ == kCommandBits) function(static_cast<uint8_t>(value_), now_us);
            break;
        case State::WriteScratchpad:
            if (bits_ == kWriteScratchpadBits) {
                user_[0] = static_cast<uint8_t>(value_);
                user_[1] = static_cast<uint8_t>(value_ >> 8);
                user_[2] = static_cast<uint8_t>(((value_ >> 16) & kResolutionBits) | kConfigurationFixed);
                listen(State::Silent);
            }
            break;
        default:
            break;
    }
}

void Ds18b20::rom_command(uint8_t command) {
    switch (command) {
        case kReadRom:
            return listen(State::SendRom);
        case kSkipRom:
            return listen(State::Function);
        case kMatchRom:
            return listen(State::MatchRom);
        default:
            return listen(State::Silent);
    }
}

void Ds18b20::function(uint8_t command, uint64_t now_us) {
    switch (command) {
        case kConvertT:
            converting_ = true;
            done_at_ = now_us + (kConversion9BitUs << ((user_[2] & kResolutionBits) >> 5));
            return listen(State::Converting);
        case kReadScratchpad:
            out_ = pad();
            return listen(State::SendScratchpad);
        case kWriteScratchpad:
            return listen(State::WriteScratchpad);
        case kCopyScratchpad:
            eeprom_ = user_;
            return listen(State::Silent);
        case kRecallE2:
            user_ = eeprom_;
            return listen(State::Silent);
        case kReadPowerSupply:  // externally powered: its read slots read 1, as when silent
        default:
            return listen(State::Silent);
    }
}

}  // namespace corvel::sim::fw
