// Numbers and text forms of the SMBus, PMBus, SDI-12, 1-Wire and EasyScale commands: PMBus's
// LINEAR11 and LINEAR16 formats and status registers, the meanings of the adapter's SMBus status
// bytes, SDI-12 measurement answers, the Dallas CRC-8 and DS18B20 temperatures.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace corvel::cli {

// --- SMBus -----------------------------------------------------------------------------------

// What the adapter's status byte for an SMBus or PMBus transaction means, as one phrase with the
// number: "address not acknowledged (status 1)". Unknown values: "unknown status (status 9)".
std::string smbus_status_text(int status);

// The value of a word that the library stored in the bytes of a uint16 as they came off the bus
// (low byte first), whatever the host's byte order.
uint16_t word_as_on_bus(uint16_t stored);

// --- PMBus numbers ---------------------------------------------------------------------------

// LINEAR11: a 5-bit two's-complement exponent N in bits 15-11 and an 11-bit two's-complement
// mantissa Y in bits 10-0; the value is Y x 2^N.
double linear11(uint16_t word);

// VOUT_MODE in LINEAR mode (bits 7-5 zero) holds the exponent of LINEAR16 in its bits 4-0, 5-bit
// two's complement. Nothing for the VID and DIRECT modes, which this tool does not decode.
std::optional<int> linear16_exponent(uint8_t vout_mode);

// LINEAR16: an unsigned 16-bit mantissa, scaled by 2^exponent from VOUT_MODE.
double linear16(uint16_t mantissa, int exponent);

// The LINEAR16 mantissa nearest to `value`, or nothing when it lies outside 0..65535 (or the value
// is not a finite number).
std::optional<uint16_t> to_linear16(double value, int exponent);

// --- PMBus status ----------------------------------------------------------------------------

// The registers that detail STATUS_WORD's summary bits.
enum class StatusRegister { word, vout, iout, temperature, cml };

// The names of the set bits of a status register, most significant first, separated by spaces:
// STATUS_WORD 0x0840 gives "POWER_GOOD# OFF". Empty when no bit is set; reserved bits that are set
// show as "bit N".
std::string status_bits(StatusRegister reg, uint16_t value);

// STATUS_WORD's summary bits and the register that details each.
inline constexpr uint16_t kStatusWordVout = 0x8000;
inline constexpr uint16_t kStatusWordIout = 0x4000;
inline constexpr uint16_t kStatusWordTemperature = 0x0004;
inline constexpr uint16_t kStatusWordCml = 0x0002;

// --- SDI-12 ----------------------------------------------------------------------------------

// A measurement command (aM!, aM1!..aM9!, aMC!, aMC1!.., aC!, aCC!, aC1!.., aV!, aHA!, aHB!)
// answered "atttn" (n of 1 to 3 digits): values are ready ttt seconds later.
struct Measurement {
    int seconds = 0;
    int values = 0;
};
std::optional<Measurement> measurement_answer(std::string_view command, std::string_view answer);

// Commands whose answer carries a CRC when the measurement asked for one: aD0!..aD999! (data) and
// aRC0!..aRC9! (continuous measurement with CRC).
bool is_data_command(std::string_view command);

// --- 1-Wire ----------------------------------------------------------------------------------

// The Dallas/Maxim CRC-8 of ROM codes and scratchpads (polynomial x^8 + x^5 + x^4 + 1, bits
// reflected, initial value 0). Over a whole ROM code or scratchpad, CRC included, it is 0.
uint8_t dallas_crc8(std::span<const uint8_t> bytes);

// A DS18B20 temperature register (1/16 C, two's complement) in degrees Celsius with as many
// decimals as it needs and at least one: 0x0158 "21.5", 0xFF5E "-10.125", 0x0550 "85.0".
std::string celsius_text(uint16_t raw);

// --- EasyScale -------------------------------------------------------------------------------

// The data byte as it goes on the line: request for acknowledge in bit 7, the register's
// sub-address (0 to 3) in bits 6-5, the value (0 to 31) in bits 4-0.
uint8_t easyscale_data_byte(bool rfa, int sub_address, int value);

}  // namespace corvel::cli
