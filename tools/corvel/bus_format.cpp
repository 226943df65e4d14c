#include "bus_format.hpp"

#include <array>
#include <cmath>
#include <cstring>

#include <fmt/core.h>

#include "corvel/protocol.hpp"

namespace corvel::cli {
namespace {

using BitNames = std::array<const char*, 16>;  // bit 0 first; nullptr: reserved

constexpr BitNames kStatusWord = {"NONE_OF_THE_ABOVE", "CML",           "TEMPERATURE", "VIN_UV_FAULT",
                                  "IOUT_OC_FAULT",     "VOUT_OV_FAULT", "OFF",         "BUSY",
                                  "UNKNOWN",           "OTHER",         "FANS",        "POWER_GOOD#",
                                  "MFR_SPECIFIC",      "INPUT",         "IOUT/POUT",   "VOUT"};
constexpr BitNames kStatusVout = {"VOUT_TRACKING_ERROR",  "TOFF_MAX_WARNING", "TON_MAX_FAULT",
                                  "VOUT_MAX_MIN_WARNING", "VOUT_UV_FAULT",    "VOUT_UV_WARNING",
                                  "VOUT_OV_WARNING",      "VOUT_OV_FAULT"};
constexpr BitNames kStatusIout = {"POUT_OP_WARNING",     "POUT_OP_FAULT", "POWER_LIMIT",
                                  "CURRENT_SHARE_FAULT", "IOUT_UC_FAULT", "IOUT_OC_WARNING",
                                  "IOUT_OC_LV_FAULT",    "IOUT_OC_FAULT"};
constexpr BitNames kStatusTemperature = {nullptr,    nullptr,      nullptr,      nullptr,
                                         "UT_FAULT", "UT_WARNING", "OT_WARNING", "OT_FAULT"};
constexpr BitNames kStatusCml = {"OTHER_MEMORY_OR_LOGIC_FAULT",
                                 "OTHER_COMMUNICATION_FAULT",
                                 nullptr,
                                 "PROCESSOR_FAULT",
                                 "MEMORY_FAULT",
                                 "PEC_FAILED",
                                 "INVALID_DATA",
                                 "INVALID_COMMAND"};

const BitNames& names_of(StatusRegister reg) {
    switch (reg) {
        case StatusRegister::word:
            return kStatusWord;
        case StatusRegister::vout:
            return kStatusVout;
        case StatusRegister::iout:
            return kStatusIout;
        case StatusRegister::temperature:
            return kStatusTemperature;
        case StatusRegister::cml:
            break;
    }
    return kStatusCml;
}

// A 5-bit two's-complement field.
int signed5(unsigned bits) {
    bits &= 0x1F;
    return bits >= 0x10 ? static_cast<int>(bits) - 32 : static_cast<int>(bits);
}

bool all_digits(std::string_view text) {
    if (text.empty()) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

}  // namespace

std::string smbus_status_text(int status) {
    static constexpr std::array<const char*, 7> kMeanings = {
        "success",           "address not acknowledged", "command or data byte not acknowledged",
        "PEC error",         "channel not initialised",  "block count out of range",
        "malformed request",
    };
    const char* meaning =
        status >= 0 && status < static_cast<int>(kMeanings.size()) ? kMeanings[status] : "unknown status";
    return fmt::format("{} (status {})", meaning, status);
}

uint16_t word_as_on_bus(uint16_t stored) {
    std::array<uint8_t, 2> bytes{};
    std::memcpy(bytes.data(), &stored, bytes.size());
    return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

double linear11(uint16_t word) {
    int mantissa = word & 0x7FF;
    if (mantissa >= 0x400) mantissa -= 0x800;
    return std::ldexp(mantissa, signed5(word >> 11));
}

std::optional<int> linear16_exponent(uint8_t vout_mode) {
    if ((vout_mode & 0xE0) != 0) return std::nullopt;
    return signed5(vout_mode);
}

double linear16(uint16_t mantissa, int exponent) {
    return std::ldexp(mantissa, exponent);
}

std::optional<uint16_t> to_linear16(double value, int exponent) {
    double mantissa = std::round(std::ldexp(value, -exponent));
    if (!std::isfinite(mantissa) || mantissa < 0 || mantissa > 65535) return std::nullopt;
    return static_cast<uint16_t>(mantissa);
}

std::string status_bits(StatusRegister reg, uint16_t value) {
    const BitNames& names = names_of(reg);
    std::string out;
    for (int bit = 15; bit >= 0; --bit) {
        if ((value >> bit & 1U) == 0) continue;
        if (!out.empty()) out += ' ';
        out += names[static_cast<std::size_t>(bit)] != nullptr
                   ? std::string(names[static_cast<std::size_t>(bit)])
                   : fmt::format("bit {}", bit);
    }
    return out;
}

std::optional<Measurement> measurement_answer(std::string_view command, std::string_view answer) {
    if (command.size() < 3 || command.back() != '!') return std::nullopt;
    std::string_view verb = command.substr(1, command.size() - 2);  // between address and "!"
    bool measurement = false;
    for (std::string_view kind : {"M", "MC", "C", "CC", "V", "HA", "HB"}) {
        if (verb.substr(0, kind.size()) != kind) continue;
        std::string_view rest = verb.substr(kind.size());
        if (rest.empty() || (rest.size() == 1 && rest[0] >= '1' && rest[0] <= '9' && kind != "V")) {
            measurement = true;
        }
    }
    // "atttn": the address, three digits of seconds, one digit of values (two for the concurrent
    // C commands, three for the high-volume H commands); any of these lengths is taken.
    if (!measurement || answer.size() < 5 || answer.size() > 7 || answer[0] != command[0])
        return std::nullopt;
    std::string_view digits = answer.substr(1);
    if (!all_digits(digits)) return std::nullopt;
    Measurement m;
    for (char c : digits.substr(0, 3)) m.seconds = m.seconds * 10 + (c - '0');
    for (char c : digits.substr(3)) m.values = m.values * 10 + (c - '0');
    return m;
}

bool is_data_command(std::string_view command) {
    if (command.size() < 4 || command.back() != '!') return false;
    std::string_view verb = command.substr(1, command.size() - 2);
    if (verb[0] == 'D') return verb.size() <= 4 && all_digits(verb.substr(1));
    return verb.size() == 3 && verb.substr(0, 2) == "RC" && all_digits(verb.substr(2));
}

uint8_t dallas_crc8(std::span<const uint8_t> bytes) {
    uint8_t crc = 0;
    for (uint8_t byte : bytes) {
        for (int i = 0; i < 8; ++i) {
            bool mix = ((crc ^ byte) & 1U) != 0;
            crc = static_cast<uint8_t>(crc >> 1);
            if (mix) crc ^= 0x8C;  // 0x31 reflected
            byte = static_cast<uint8_t>(byte >> 1);
        }
    }
    return crc;
}

std::string celsius_text(uint16_t raw) {
    int sixteenths = static_cast<int16_t>(raw);
    const char* sign = sixteenths < 0 ? "-" : "";
    int magnitude = std::abs(sixteenths);
    std::string fraction = fmt::format("{:04}", (magnitude % 16) * 625);  // ten-thousandths
    while (fraction.size() > 1 && fraction.back() == '0') fraction.pop_back();
    return fmt::format("{}{}.{}", sign, magnitude / 16, fraction);
}

uint8_t easyscale_data_byte(bool rfa, int sub_address, int value) {
    namespace es = proto::easyscale;
    return static_cast<uint8_t>((rfa ? es::kRfaBit : 0) | (sub_address & 0x03) << es::kSubAddrShift |
                                (value & es::kDataMask));
}

}  // namespace corvel::cli
