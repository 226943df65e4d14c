// A DS18B20-style 1-Wire temperature sensor, at the level of time slots.
//
// The bus master gives it resets and slots. In a slot the master either releases the line early
// (a write 1, and every read slot) or holds it low (a write 0); the sensor takes the slot as a bit
// of what it listens to, or, when it has something to say, answers a 0 by holding the line low for
// the slot and a 1 by leaving it alone. So a read slot while it listens is a 1 written to it, and
// any slot while it talks takes the next bit of its answer. Bits go least significant first.
//
// After a reset it listens for a ROM command: 0x33 READ ROM (sends its 8-byte ROM code), 0xCC SKIP
// ROM, 0x55 MATCH ROM (64 bits; on a mismatch it falls silent until the next reset). SEARCH ROM
// needs single read slots, which the adapter's primitives do not offer: the sensor takes it as an
// unknown command. Then a function: 0x44 CONVERT T (read slots read 0 until the conversion is done: 93.75,
// 187.5, 375 or 750 ms for 9 to 12 bits of resolution, then 1), 0xBE READ SCRATCHPAD (9 bytes, then 1s), 0x4E
// WRITE SCRATCHPAD (TH, TL, configuration; only the resolution bits 5-6 of the latter are writable), 0x48
// COPY SCRATCHPAD (TH, TL and configuration to its EEPROM), 0xB8 RECALL E2, 0xB4 READ POWER SUPPLY (reads 1:
// externally powered). Anything else makes it silent until the next reset. Until the first reset after
// power-up it does not listen at all.
//
// Scratchpad: temperature LSB and MSB (two's complement, 1/16 degree; 85.0 degrees, 0x0550, until
// the first conversion; bits below the resolution read 0), TH, TL, configuration, 0xFF, 0x0C, 0x10
// and the Dallas CRC-8 of the first eight. EEPROM at power-up: TH 0x4B (75), TL 0x46 (70),
// configuration 0x7F (12 bits).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace corvel::sim::fw {

// The Dallas/Maxim CRC-8 (polynomial x^8 + x^5 + x^4 + 1, reflected 0x8C, initial 0).
uint8_t dallas_crc8(const uint8_t* bytes, std::size_t n);

class Ds18b20 {
  public:
    // Family 0x28, serial 43 4F 52 56 45 4C ("CORVEL") least significant byte first, CRC.
    static std::array<uint8_t, 8> rom();
    static constexpr int16_t kPowerUpRaw = 0x0550;  // 85.0 degrees

    // A reset pulse: the sensor listens for a ROM command (the caller models its presence pulse).
    void reset(uint64_t now_us);
    // One slot. `released`: the master let the line go early (write 1 or read slot), else it held
    // it low (write 0). Returns true when the sensor held the line low for the slot.
    bool slot(bool released, uint64_t now_us);

    // Degrees Celsius measured at the next conversion, kept within -55 to +125.
    void set_temperature(double celsius);
    double temperature() const { return raw_ / 16.0; }
    std::array<uint8_t, 9> scratchpad(uint64_t now_us);

  private:
    enum class State : uint8_t {
        Silent,
        RomCommand,
        SendRom,
        MatchRom,
        Function,
        Converting,
        SendScratchpad,
        WriteScratchpad,
    };

    void update(uint64_t now_us);
    void take(bool bit, uint64_t now_us);  // a bit it listens to
    void rom_command(uint8_t command);
    void function(uint8_t command, uint64_t now_us);
    std::array<uint8_t, 9> pad() const;
    bool bit_of(const uint8_t* bytes, unsigned n) const { return (bytes[n / 8] >> (n % 8)) & 1; }
    void listen(State s) { state_ = s, bits_ = 0, value_ = 0; }

    State state_ = State::Silent;
    unsigned bits_ = 0;   // bits of the current command or answer done
    uint32_t value_ = 0;  // bits listened to so far
    std::array<uint8_t, 9> out_{};
    int16_t raw_ = 21 * 16 + 8;  // what a conversion measures: 21.5 degrees
    int16_t temperature_ = kPowerUpRaw;
    std::array<uint8_t, 3> user_{0x4B, 0x46, 0x7F};    // TH, TL, configuration in the scratchpad
    std::array<uint8_t, 3> eeprom_{0x4B, 0x46, 0x7F};  // and in the EEPROM
    bool converting_ = false;
    uint64_t done_at_ = 0;
};

}  // namespace corvel::sim::fw
