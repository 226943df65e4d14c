// An LM75-style temperature sensor.
//
// A register pointer, written as the first byte after START with the write bit, selects one of four
// registers: 0 temperature (read-only), 1 configuration (one byte), 2 hysteresis and 3
// over-temperature limit. The 16-bit registers hold two's complement values in 1/256 degree
// Celsius, MSB first, with a resolution of 0.5 degree (the low seven bits are always zero). A read
// returns the selected register from its first byte on; past the register's end the bytes repeat.
// A written 16-bit register takes its new value once both bytes have arrived; further bytes in the
// same transaction are ignored, as are writes to the temperature. A pointer above 3 is NACKed.
#pragma once

#include <array>
#include <cstdint>

#include "targets/i2c_target.hpp"

namespace corvel::sim::fw {

class TempSensor final : public I2cTarget {
  public:
    static constexpr int16_t kDefaultTemperature = 25 * 256;
    static constexpr int16_t kDefaultHysteresis = 75 * 256;
    static constexpr int16_t kDefaultOverTemperature = 80 * 256;

    bool start(bool read) override;
    bool write(uint8_t byte) override;
    uint8_t read() override;

    // Sets the measured temperature. The value is brought down to the 0.5 degree step at or below
    // it (-5.5 stays -5.5, -5.7 becomes -6.0, 25.3 becomes 25.0) and kept within the register's
    // range, -128.0 to +127.5 degrees.
    void set_temperature(int milli_celsius);

  private:
    enum : uint8_t { kTemperature = 0, kConfiguration = 1, kHysteresis = 2, kOverTemperature = 3 };

    std::array<uint16_t, 4> registers_{static_cast<uint16_t>(kDefaultTemperature), 0,
                                       static_cast<uint16_t>(kDefaultHysteresis),
                                       static_cast<uint16_t>(kDefaultOverTemperature)};
    uint8_t pointer_ = kTemperature;
    bool expect_pointer_ = false;
    unsigned written_ = 0;  // register bytes written in this transaction
    unsigned read_ = 0;     // register bytes read in this transaction
    uint8_t high_byte_ = 0;
};

}  // namespace corvel::sim::fw
