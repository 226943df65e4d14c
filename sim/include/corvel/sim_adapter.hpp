// One adapter on the virtual bus: its USB identity and its personality, and for the CAN types the
// CAN bus behind it. The control API configures adapters with it, and the firmware model takes it
// as the identity it answers with; it knows nothing of libusb.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "corvel/protocol.hpp"

namespace corvel::sim {

// A simulated CAN node that sends frames of its own on a bus, `rate` frames per second: frame k
// (k = 1, 2, ...) goes k / rate seconds after the generator was set up. Its identifiers are fixed
// (id_first), count up from id_first to id_last and start over, or are pseudo-random in that range
// (from `seed`); its data are the frame's number (little-endian, first dlc bytes), pseudo-random,
// or `fixed`. It acknowledges the frames of others.
struct CanGeneratorSpec {
    enum class Ids : uint8_t { Fixed, Increment, Random };
    enum class Data : uint8_t { Counter, Random, Fixed };
    uint32_t rate = 0;     // frames per second; 0: no generator
    int bus = 1;           // 1 or 2 (see CanSpec::split)
    uint32_t bitrate = 0;  // bit/s; 0: the adapter's bus bit rate
    Ids ids = Ids::Fixed;
    uint32_t id_first = 0x100;
    uint32_t id_last = 0x100;
    uint32_t seed = 1;
    bool extended = false;
    uint8_t dlc = 8;
    Data data = Data::Counter;
    std::array<uint8_t, 8> fixed{};
};

// A simulated CAN node that answers every frame it receives with the identifier + 1 (same format,
// same data), and acknowledges frames.
struct CanEchoSpec {
    int bus = 0;           // 1 or 2; 0: no echo node
    uint32_t bitrate = 0;  // bit/s; 0: the adapter's bus bit rate
};

// The CAN side of a CAN-type adapter (types 3 and 4; ignored on the others).
struct CanSpec {
    uint32_t bitrate = 500000;  // the bus's bit rate, at which the controllers come up
    bool split = false;         // false: both channels on one bus; true: each channel on a bus of its own
    CanEchoSpec echo;
    CanGeneratorSpec generator;
};

// The analogue signal on one ADC channel, a function of the adapter's time t in seconds, in counts
// of the 12-bit converter (0..4095 for 0..3.3 V; a voltage v is round(v x 4096 / 3.3), at most
// 4095):
//   Dc      `volts`
//   Ramp    a sawtooth 0..4095 at `hz`: floor(4096 x frac(t x hz))
//   Sine    round(2048 + a x sin(2 pi hz t)), a the amplitude `volts` in counts (at most 2047)
//   Square  4095 in the first half of each period of `hz`, 0 in the second
struct AdcSignal {
    enum class Kind : uint8_t { Dc, Ramp, Sine, Square };
    Kind kind = Kind::Dc;
    double volts = 0;  // Dc: the level; Sine: the amplitude
    double hz = 0;
    bool operator==(const AdcSignal&) const = default;
};

// What a counter counts the edges of: a PWM output, a GPIO pin (its level changes, which happen at
// the host's writes and at outside-driver changes), or nothing.
struct CounterSource {
    enum class Kind : uint8_t { Pwm, Pin, None };
    Kind kind = Kind::None;
    int index = 0;  // PWM output 0..7 or pin 0..23
    bool operator==(const CounterSource&) const = default;
};

// Two GPIO pins joined by a wire; the wires of a harness join pins into nets.
struct IoWire {
    int a = 0, b = 0;
    bool operator==(const IoWire&) const = default;
};
using IoWiring = std::vector<IoWire>;

// The outside of the GPIO, ADC, PWM and counter functions of the I2C and SPI types (ignored on
// the others). Defaults: pin n wired to pin n + 8 for n = 0..7; ADC channels 0..7 fed by DC
// 1.65 V, a 1 Hz ramp, a 50 Hz sine, a 10 Hz square wave, DC 0, 0.825, 2.475 and 3.3 V; counter n
// counting PWM output n.
IoWiring default_io_wiring();
std::array<AdcSignal, 8> default_adc_signals();
std::array<CounterSource, 4> default_counter_sources();

struct IoSpec {
    IoWiring wiring = default_io_wiring();
    std::array<AdcSignal, 8> adc = default_adc_signals();
    std::array<CounterSource, 4> counters = default_counter_sources();
};

inline IoWiring default_io_wiring() {
    IoWiring w;
    for (int n = 0; n < 8; ++n) w.push_back({n, n + 8});
    return w;
}

inline std::array<AdcSignal, 8> default_adc_signals() {
    using K = AdcSignal::Kind;
    return {{{K::Dc, 1.65, 0},
             {K::Ramp, 0, 1},
             {K::Sine, 1.65, 50},
             {K::Square, 0, 10},
             {K::Dc, 0, 0},
             {K::Dc, 0.825, 0},
             {K::Dc, 2.475, 0},
             {K::Dc, 3.3, 0}}};
}

inline std::array<CounterSource, 4> default_counter_sources() {
    using K = CounterSource::Kind;
    return {{{K::Pwm, 0}, {K::Pwm, 1}, {K::Pwm, 2}, {K::Pwm, 3}}};
}

// The SMBus side of the I2C type (ignored on the others): the 7-bit addresses of the PMBus power
// supplies on channel 1, by default 0x40 and 0x41.
inline std::vector<uint8_t> default_supplies() {
    std::vector<uint8_t> s;  // built a step at a time: g++ 12 misreads a two-byte initializer list here
    s.push_back(0x40);
    s.push_back(0x41);
    return s;
}

struct SmbusSpec {
    std::vector<uint8_t> supplies = default_supplies();
};

struct AdapterSpec {
    std::string serial = "CV0000000001";   // USB serial-number string
    bool has_serial = true;                // false: the device descriptor has no serial string
    int personality = proto::kDevTypeI2c;  // device type 1 I2C, 2 SPI, 3 one-channel CAN, 4 two-channel CAN
    uint16_t vendor = proto::kVendorId;
    uint16_t product = proto::kProductId;
    CanSpec can;
    IoSpec io;        // types 1 and 2
    SmbusSpec smbus;  // type 1

    // Only a device with the adapter's ids runs the firmware model; any other is a foreign device.
    bool runs_model() const { return vendor == proto::kVendorId && product == proto::kProductId; }
};

}  // namespace corvel::sim
