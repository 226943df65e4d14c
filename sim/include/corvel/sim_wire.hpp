// Control API of the virtual adapter's single-wire side (types 1 and 2): the SDI-12 ports and their
// sensors, the 1-Wire line and its DS18B20-style temperature sensor, and the EasyScale channels
// with their LED driver.
//
// An unknown adapter, an adapter without these functions (types 3 and 4), or a port or channel out
// of range gives harmless defaults (a default record, false, 0) and changes nothing. See
// docs/virtual-adapter.md, "SDI-12, 1-Wire and EasyScale".
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "corvel/sim.hpp"

namespace corvel::sim {

// ---- SDI-12: ports 0 and 1, one sensor each

struct Sdi12PortState {
    bool initialised = false;        // the host has set the port up
    char address = 0;                // its sensor's address (changed by "aAb!")
    std::vector<double> values;      // what a measurement ("aM!", "aMC!", "aC!") returns
    std::vector<double> continuous;  // what "aR0!" returns
    uint64_t commands = 0;           // commands the sensor has heard (parity right, "!" at the end)
    std::string last_command;        // the last of them, parity removed
};
CORVEL_SIM_API Sdi12PortState sdi12_port(int adapter, int port);
// The sensor's measurement values, 0 to 9 of them, each shown with up to 7 significant digits. False
// (nothing changes) for more than 9 values.
CORVEL_SIM_API bool set_sdi12_values(int adapter, int port, const std::vector<double>& values);
// The values of the continuous measurement "aR0!", 0 to 9 of them. False for more than 9.
CORVEL_SIM_API bool set_sdi12_continuous(int adapter, int port, const std::vector<double>& values);

// ---- 1-Wire: one line, on the GPIO port and pin the host's init chose

struct OneWireLineState {
    bool initialised = false;
    uint8_t port = 0, pin = 0;
    std::array<uint8_t, 15> timings{};  // tA..tJ, tR1..tR5 as received (microseconds)
    bool level = true;                  // the line now: false while the host drives it low
    bool transmitting = true;           // the pin's direction after OUTPUT_TX / INPUT_RX
    bool sensor_on_line = false;        // the sensor sits on the port and pin in use
};
CORVEL_SIM_API OneWireLineState onewire_line(int adapter);
// The temperature the sensor measures at its next conversion, in degrees Celsius (kept within
// -55 to +125, stored in 1/16 degree).
CORVEL_SIM_API double onewire_temperature(int adapter);
CORVEL_SIM_API void set_onewire_temperature(int adapter, double celsius);
// The sensor's scratchpad (9 bytes, CRC last) and its ROM code (family, serial, CRC).
CORVEL_SIM_API std::array<uint8_t, 9> onewire_scratchpad(int adapter);
CORVEL_SIM_API std::array<uint8_t, 8> onewire_rom(int adapter);

// ---- EasyScale: channels 0 and 1, an LED driver at device address 0x72 on channel 0

struct EasyScaleTimings {
    uint16_t es_delay = 0, es_detect = 0, es_win = 0;
    uint16_t high_bit_high = 0, high_bit_low = 0, low_bit_high = 0, low_bit_low = 0;
    uint16_t ack_n = 0, eos = 0, start = 0, val_ack = 0, shutdown = 0;
};
struct EasyScaleChannelState {
    bool initialised = false;
    uint16_t init_pin = 0;  // the line's idle level as the host set it
    EasyScaleTimings timings;
    uint8_t last_mode = 0;  // the mode byte of the last command (forwarded; the driver ignores it)
};
CORVEL_SIM_API EasyScaleChannelState easyscale_channel(int adapter, int channel);

struct EasyScaleDriverState {
    std::array<uint8_t, 4> registers{};  // by sub-address: brightness, fade step, string mask, OVP
    uint64_t commands = 0;               // commands it took (addressed to it and decoded)
};
CORVEL_SIM_API EasyScaleDriverState easyscale_driver(int adapter);

}  // namespace corvel::sim
